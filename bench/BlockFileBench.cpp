// What the disk costs through the store, beside a bare loop over the same bytes: a writer against
// compressing and writing the files one after another, and accessors of blocks that are not in
// memory against opening, reading and decompressing their files.
//
// Each row measures both, round about. Its time is that of the store, on average; "store_ms" and
// "bare_ms" are medians of single rounds, and "ratio" is the one by the other: 1 means that the
// store costs nothing beside the bare loop. "cpu_ratio" is the same of the processor time that all
// threads took, which a busy machine does not move; the polling of whoever waits for the writer is
// in it. The files come from the page cache in both, so it is not the disk that is measured.

#include "data/ZebDataBlock.h"
#include "data/ZebDataReference.h"
#include "hash/ZebHashManager.h"
#include "io/ZebDataBlockWriteThread_Pattern1.h"
#include "manager/ZebDataBlockManager.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <iterator>
#include <memory>
#include <random>
#include <vector>

#include <time.h>

namespace {

constexpr int s_BlockBytes = 256 * 1024;
constexpr int s_Blocks = 16;
constexpr int s_Buckets = 10;
constexpr int s_CompressionLevel = 2;
constexpr int s_HeaderBytes = 12;
constexpr double s_MsPerSecond = 1e3;
constexpr double s_NsPerSecond = 1e9;
constexpr qint64 s_MemoryLimit = 1024LL * 1024 * 1024;

using Contents = std::vector<QByteArray>;
using Hashes = std::vector<ZebSmartPointer<ZebDataHash>>;

Contents textLike()
{
    static const char* const words[] = {"block", "writes", "the",  "reader", "of",    "a",
                                        "cache", "which",  "disk", "hash",   "holds", "every"};
    std::mt19937 random(1);
    Contents contents;
    for (int i = 0; i < s_Blocks; ++i) {
        QByteArray content;
        while (content.size() < s_BlockBytes) {
            content += words[random() % std::size(words)];
            content += random() % 12 == 0
                           ? "\n" + QByteArray::number(static_cast<quint32>(random()))
                           : QByteArray(" ");
        }
        content.truncate(s_BlockBytes);
        contents.push_back(content);
    }
    return contents;
}

Contents incompressible()
{
    std::mt19937 random(2);
    Contents contents;
    for (int i = 0; i < s_Blocks; ++i) {
        QByteArray content(s_BlockBytes, '\0');
        for (char& byte : content)
            byte = static_cast<char>(random() & 0xFFU);
        contents.push_back(content);
    }
    return contents;
}

// Identities for the blocks. Nothing here asks that they are the digests of their contents, and so
// no digest is measured.
Hashes identities()
{
    std::mt19937 random(3);
    Hashes hashes;
    for (int i = 0; i < s_Blocks; ++i) {
        unsigned char digest[ZebDataHash::Hash512];
        for (unsigned char& byte : digest)
            byte = static_cast<unsigned char>(random() & 0xFFU);
        hashes.push_back(
            ZebHashManager::instance().addHash(new ZebDataHash(ZebDataHash::Hash512, digest)));
    }
    return hashes;
}

// The bare way to write a block. Returns the length of the payload, 0 when it fails.
qint64 writeBare(const QString& path, const QByteArray& content)
{
    QFile file(path);
    const QByteArray payload = qCompress(content, s_CompressionLevel);
    const qint64 size = content.size();
    const qint32 length = payload.size();
    const bool written =
        file.open(QIODevice::WriteOnly) &&
        file.write(reinterpret_cast<const char*>(&size), sizeof size) == sizeof size &&
        file.write(reinterpret_cast<const char*>(&length), sizeof length) == sizeof length &&
        file.write(payload) == length && file.flush();
    return written ? length : 0;
}

// The bare way to read a block.
QByteArray readBare(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    file.read(s_HeaderBytes);
    return qUncompress(file.readAll());
}

// Collects the times of both ways.
class Comparison
{
public:
    explicit Comparison(benchmark::State* state) : m_State(state) {}

    // One round. Which way comes first changes, so that neither always finds the warmer machine.
    void measure(const std::function<void()>& store, const std::function<void()>& bare)
    {
        const bool bareFirst = m_Store.m_Wall.size() % 2 == 1;
        if (bareFirst)
            m_Bare.add(bare);
        m_Store.add(store);
        if (!bareFirst)
            m_Bare.add(bare);
        m_State->SetIterationTime(m_Store.m_Wall.back());
    }

    void report()
    {
        if (m_Store.m_Wall.empty())
            return;
        const auto rounds = static_cast<int64_t>(m_Store.m_Wall.size());
        const double store = median(&m_Store.m_Wall);
        const double bare = median(&m_Bare.m_Wall);
        m_State->SetBytesProcessed(rounds * s_Blocks * s_BlockBytes);
        m_State->counters["store_ms"] = store * s_MsPerSecond;
        m_State->counters["bare_ms"] = bare * s_MsPerSecond;
        m_State->counters["ratio"] = store / bare;
        m_State->counters["cpu_ratio"] = median(&m_Store.m_Cpu) / median(&m_Bare.m_Cpu);
    }

private:
    // Seconds, one value for each round.
    struct Times
    {
        void add(const std::function<void()>& work)
        {
            const double wall = now(CLOCK_MONOTONIC);
            const double cpu = now(CLOCK_PROCESS_CPUTIME_ID);
            work();
            m_Cpu.push_back(now(CLOCK_PROCESS_CPUTIME_ID) - cpu);
            m_Wall.push_back(now(CLOCK_MONOTONIC) - wall);
        }
        std::vector<double> m_Wall;
        std::vector<double> m_Cpu;
    };

    static double now(clockid_t clock)
    {
        timespec time{};
        clock_gettime(clock, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / s_NsPerSecond;
    }

    static double median(std::vector<double>* values)
    {
        const auto middle = values->begin() + static_cast<std::ptrdiff_t>(values->size() / 2);
        std::nth_element(values->begin(), middle, values->end());
        return *middle;
    }

    benchmark::State* m_State;
    Times m_Store;
    Times m_Bare;
};

// Nothing is handed to the writer but blocks: what the manager does around it is not measured.
void writeFiles(benchmark::State& state, Contents (*make)())
{
    const Contents contents = make();
    const Hashes hashes = identities();
    const QTemporaryDir directory;
    const QString bareRoot = directory.path() + "/bare/";
    const QString storeRoot = directory.path() + "/store/";
    ZebDataBlockWriteThread_Pattern1 writer(storeRoot, s_Buckets, nullptr);
    writer.start();
    // The thread has begun when this returns, and idles: the first block will not miss it.
    writer.flush(hashes.front());
    Comparison comparison(&state);
    for ([[maybe_unused]] auto _ : state) {
        for (int bucket = 0; bucket < s_Buckets; ++bucket) {
            QDir().mkpath(bareRoot + QString::number(bucket));
            QDir().mkpath(storeRoot + "/" + QString::number(bucket));
        }
        std::vector<std::unique_ptr<ZebDataBlock>> blocks;
        for (const QByteArray& content : contents)
            blocks.push_back(std::make_unique<ZebDataBlock>(content));
        const qint64 before = writer.bytesWritten();
        qint64 bareBytes = 0;
        comparison.measure(
            [&] {
                for (size_t i = 0; i < blocks.size(); ++i) {
                    writer.writeBlock(ZebDataBlockManager::PreloadNormal, hashes[i],
                                      blocks[i].get(), false);
                }
                writer.flush();
            },
            [&] {
                for (size_t i = 0; i < contents.size(); ++i) {
                    const QString bucket = QString::number(i % s_Buckets);
                    bareBytes +=
                        writeBare(bareRoot + bucket + "/" + hashes[i]->toString(), contents[i]);
                }
            });
        if (bareBytes == 0 || writer.bytesWritten() - before != bareBytes) {
            state.SkipWithError("the two have not written the same");
            break;
        }
        QDir(bareRoot).removeRecursively();
        QDir(storeRoot).removeRecursively();
    }
    comparison.report();
    writer.closeDown();
    writer.wait();
}

void readFiles(benchmark::State& state, Contents (*make)())
{
    const Contents contents = make();
    const QTemporaryDir directory;
    ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    manager.setup({directory.path()}, s_MemoryLimit, s_Buckets);
    {
        std::vector<ZebDataReference> references;
        std::vector<QString> paths;
        for (const ZebSmartPointer<ZebDataHash>& hash : identities()) {
            references.emplace_back(hash);
            paths.push_back(manager.getBlockDestination(QString(), hash->toString()));
        }
        for (int bucket = 0; bucket < s_Buckets; ++bucket)
            QDir().mkpath(directory.path() + "//" + QString::number(bucket));
        for (size_t i = 0; i < paths.size(); ++i)
            writeBare(paths[i], contents[i]);
        Comparison comparison(&state);
        for ([[maybe_unused]] auto _ : state) {
            manager.freeAllBlocks();
            qint64 storeBytes = 0;
            // Kept until the round is over, as the store keeps its blocks.
            Contents bareBlocks;
            comparison.measure(
                [&] {
                    for (const ZebDataReference& reference : references) {
                        const ZebConstAccessor accessor = reference.constAccessor();
                        storeBytes += accessor.isNull() ? 0 : accessor.size();
                    }
                },
                [&] {
                    for (const QString& path : paths)
                        bareBlocks.push_back(readBare(path));
                });
            if (bareBlocks != contents || storeBytes != qint64(s_Blocks) * s_BlockBytes) {
                state.SkipWithError("the two have not read the same");
                break;
            }
        }
        comparison.report();
    }
    manager.cleanUp();
}

BENCHMARK_CAPTURE(writeFiles, text, &textLike)
    ->Name("BlockFile/Write/Text")
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(writeFiles, incompressible, &incompressible)
    ->Name("BlockFile/Write/Incompressible")
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(readFiles, text, &textLike)
    ->Name("BlockFile/ColdRead/Text")
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(readFiles, incompressible, &incompressible)
    ->Name("BlockFile/ColdRead/Incompressible")
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

} // namespace
