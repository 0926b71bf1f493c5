// What a garbage collector costs: a pass over many files, whose contents are all alive or all dead,
// and a poll that finds nothing to do, which every collector makes ten times a second.
//
// The files come from the page cache, so it is not the disk that is measured; removing them is a
// matter of the file system.

#include "data/ZebDataReference.h"
#include "hash/ZebHashManager.h"
#include "io/ZebGarbageCollectorThread.h"
#include "manager/ZebDataBlockManager.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <cstddef>
#include <random>
#include <vector>

namespace {

constexpr int s_SmallTree = 1000;
constexpr int s_LargeTree = 100000;
constexpr int s_Buckets = 10;
constexpr int s_FileBytes = 100;
constexpr qint64 s_MemoryLimit = 1024 * 1024;

using Hashes = std::vector<ZebSmartPointer<ZebDataHash>>;

ZebDataBlockManager& manager()
{
    return ZebDataBlockManager::instance();
}

// A collector that runs on this thread alone, on a tree of its own. The store has no root, and so
// no other collector disturbs it.
class Tree
{
public:
    Tree() : m_Collector(m_Root.path(), s_Buckets, nullptr)
    {
        manager().setup({}, s_MemoryLimit);
        manager().setSubCache(QStringLiteral("Sub"));
        manager().startGarbageCollection();
        for (int bucket = 0; bucket < s_Buckets; ++bucket)
            QDir().mkpath(this->bucket(bucket));
    }
    ~Tree() { manager().cleanUp(); }
    Tree(const Tree&) = delete;
    Tree& operator=(const Tree&) = delete;

    // Makes a file for each of these hashes. False when one can't be made.
    bool makeFiles(const Hashes& hashes) const
    {
        const QByteArray bytes(s_FileBytes, 'x');
        int number = 0;
        for (const ZebSmartPointer<ZebDataHash>& hash : hashes) {
            QFile file(bucket(number++ % s_Buckets) + QDir::separator() + hash->toString());
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
        // A block that leaves memory opens the gate.
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
        return m_Root.path() + QStringLiteral("/Sub/%1").arg(number);
    }

    QTemporaryDir m_Root;
    ZebGarbageCollectorThread m_Collector;
};

Hashes identities(int count)
{
    std::mt19937 random(1);
    Hashes hashes;
    hashes.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        unsigned char digest[ZebDataHash::Hash512];
        for (unsigned char& byte : digest)
            byte = static_cast<unsigned char>(random() & 0xFFU);
        hashes.push_back(
            ZebHashManager::instance().addHash(new ZebDataHash(ZebDataHash::Hash512, digest)));
    }
    return hashes;
}

// Nothing is to be removed, and every size is asked for.
void passOverLive(benchmark::State& state)
{
    const int count = static_cast<int>(state.range(0));
    Tree tree;
    const Hashes hashes = identities(count);
    if (!tree.makeFiles(hashes))
        state.SkipWithError("a file cannot be made");
    for (auto _ : state)
        state.SetIterationTime(tree.pass());
    if (tree.files() != count)
        state.SkipWithError("a live file has gone");
    state.SetItemsProcessed(state.iterations() * count);
}

// Every file is removed. They are made again for each pass, which is not measured.
void passOverDead(benchmark::State& state)
{
    const int count = static_cast<int>(state.range(0));
    Tree tree;
    for (auto _ : state) {
        if (!tree.makeFiles(identities(count))) {
            state.SkipWithError("a file cannot be made");
            break;
        }
        state.SetIterationTime(tree.pass());
    }
    if (tree.files() != 0)
        state.SkipWithError("a dead file has stayed");
    state.SetItemsProcessed(state.iterations() * count);
}

void pollWithNothingToDo(benchmark::State& state)
{
    Tree tree;
    tree.pass();
    for (auto _ : state)
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
BENCHMARK(pollWithNothingToDo)->Name("Collector/poll")->Unit(benchmark::kMicrosecond);

} // namespace
