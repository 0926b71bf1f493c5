// The cost of garbage collection: a pass over many files whose hashes are all live or all dead, and
// a poll that finds no work, which every collector does ten times a second.
//
// The files come from the page cache, so the disk itself is not measured; how long it takes to
// remove a file depends on the file system.

#include "bench/SampleBlocks.h"

#include "data/ZebDataReference.h"
#include "io/ZebBlockPlace.h"
#include "io/ZebGarbageCollectorThread.h"
#include "manager/ZebDataBlockManager.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

namespace {

constexpr int s_SmallTree = 1000;
constexpr int s_LargeTree = 100000;
constexpr int s_Buckets = 10;
constexpr int s_FileBytes = 100;
constexpr qint64 s_MemoryLimit = 1024 * 1024;

using SampleBlocks::Hashes;

const QString s_SubCache = QStringLiteral("Sub");

ZebDataBlockManager& manager()
{
    return ZebDataBlockManager::instance();
}

// A collector on a tree of its own, which runs only when this thread calls it. The store has no
// root, so it has no collectors.
class Tree
{
public:
    Tree() : m_Collector(m_Root.path(), s_Buckets, nullptr)
    {
        manager().setup({}, s_MemoryLimit);
        manager().setSubCache(s_SubCache);
        manager().startGarbageCollection();
        for (int bucket = 0; bucket < s_Buckets; ++bucket)
            QDir().mkpath(this->bucket(bucket));
    }
    ~Tree() { manager().cleanUp(); }
    Tree(const Tree&) = delete;
    Tree& operator=(const Tree&) = delete;

    // Creates a file for each of these hashes. Returns false when that fails.
    bool makeFiles(const Hashes& hashes) const
    {
        const QByteArray bytes(s_FileBytes, 'x');
        int number = 0;
        for (const ZebSmartPointer<ZebDataHash>& hash : hashes) {
            QFile file(bucket(number++ % s_Buckets) + hash->toString());
            if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
                return false;
        }
        return true;
    }

    int files() const
    {
        int count = 0;
        for (int bucket = 0; bucket < s_Buckets; ++bucket)
            count += static_cast<int>(QDir(this->bucket(bucket)).count()) - 2;
        return count;
    }

    // A pass, in seconds.
    double pass()
    {
        // A freed block opens the gate.
        manager().addBlock("freed", ZebModifyAccessor::DontCache);
        QElapsedTimer timer;
        timer.start();
        m_Collector.collect(nullptr, nullptr);
        return static_cast<double>(timer.nsecsElapsed()) / 1e9;
    }

    void poll() { m_Collector.collect(nullptr, nullptr); }

private:
    QString bucket(int number) const
    {
        return ZebBlockPlace::directory(m_Root.path(), s_SubCache, number);
    }

    QTemporaryDir m_Root;
    ZebGarbageCollectorThread m_Collector;
};

// The pass removes no file, and reads the size of every file.
void passOverLive(benchmark::State& state)
{
    const int count = static_cast<int>(state.range(0));
    Tree tree;
    const Hashes hashes = SampleBlocks::hashes(1, count);
    if (!tree.makeFiles(hashes))
        state.SkipWithError("cannot create a file");
    for ([[maybe_unused]] auto _ : state)
        state.SetIterationTime(tree.pass());
    if (tree.files() != count)
        state.SkipWithError("a live file was removed");
    state.SetItemsProcessed(state.iterations() * count);
}

// The pass removes every file. Creating them again for each pass is not measured.
void passOverDead(benchmark::State& state)
{
    const int count = static_cast<int>(state.range(0));
    Tree tree;
    for ([[maybe_unused]] auto _ : state) {
        if (!tree.makeFiles(SampleBlocks::hashes(1, count))) {
            state.SkipWithError("cannot create a file");
            break;
        }
        state.SetIterationTime(tree.pass());
    }
    if (tree.files() != 0)
        state.SkipWithError("a dead file was not removed");
    state.SetItemsProcessed(state.iterations() * count);
}

void pollWithoutWork(benchmark::State& state)
{
    Tree tree;
    tree.pass();
    for ([[maybe_unused]] auto _ : state)
        tree.poll();
}

BENCHMARK(passOverLive)
    ->Name("Collector/pass_over_live")
    ->ArgName("files")
    ->Arg(s_SmallTree)
    ->Arg(s_LargeTree)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(passOverDead)
    ->Name("Collector/pass_over_dead")
    ->ArgName("files")
    ->Arg(s_SmallTree)
    ->Arg(s_LargeTree)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(pollWithoutWork)->Name("Collector/poll")->Unit(benchmark::kMicrosecond);

} // namespace
