// The cost of the store's disk work, compared with a baseline loop over the same bytes: a writer
// compared with compressing and writing the files one by one, and accessors of blocks that are not
// resident compared with opening, reading and decompressing their files.
//
// Each row measures both in interleaved rounds. Its time is the average of the store; "store_ms"
// and "baseline_ms" are medians of single rounds, and "ratio" is store by baseline: 1 means that
// the store adds no cost. "cpu_ratio" is the same ratio of the processor time of all threads, which
// a busy machine does not change; it includes the polling of the thread that waits for the writer.
// The files come from the page cache in both, so the disk itself is not measured.

#include "bench/BenchStore.h"
#include "bench/RoundTimes.h"
#include "bench/SampleBlocks.h"

#include "data/ZebDataBlock.h"
#include "data/ZebDataReference.h"
#include "io/ZebBlockFile.h"
#include "io/ZebBlockPlace.h"
#include "io/ZebDataBlockWriteThread_Pattern1.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <random>
#include <vector>

namespace {

constexpr int s_BlockBytes = 256 * 1024;
constexpr int s_Blocks = 16;
constexpr int s_Buckets = BenchStore::s_DefaultBuckets;
constexpr double s_MsPerSecond = 1e3;

using Blobs = std::vector<QByteArray>;

Blobs textLike()
{
    std::mt19937 random(1);
    Blobs blobs;
    for (int i = 0; i < s_Blocks; ++i)
        blobs.push_back(SampleBlocks::text(&random, s_BlockBytes));
    return blobs;
}

Blobs incompressible()
{
    std::mt19937 random(2);
    Blobs blobs;
    for (int i = 0; i < s_Blocks; ++i)
        blobs.push_back(SampleBlocks::noise(&random, s_BlockBytes));
    return blobs;
}

// Random hashes: nothing here requires the digests of the blobs, so no digest is measured.
SampleBlocks::Hashes randomHashes()
{
    return SampleBlocks::hashes(3, s_Blocks);
}

// Writes a block file without the store. Returns the length of the payload, 0 on failure.
qint64 writeBaseline(const QString& path, const QByteArray& blob)
{
    QFile file(path);
    const QByteArray payload = ZebBlockFile::encodePayload(blob);
    const auto header = ZebBlockFile::Header{blob.size(), payload.size()}.encode();
    const bool written = file.open(QIODevice::WriteOnly) &&
                         file.write(header.data(), header.size()) == qint64(header.size()) &&
                         file.write(payload) == payload.size() && file.flush();
    return written ? payload.size() : 0;
}

// Reads a block file without the store.
QByteArray readBaseline(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    file.read(ZebBlockFile::s_HeaderBytes);
    return ZebBlockFile::decodePayload(file.readAll());
}

// Collects the times of the store and of the baseline.
class Comparison
{
public:
    explicit Comparison(benchmark::State* state) : m_State(state) {}

    // One round. The order alternates, so that neither always finds the warmer machine.
    void measure(const std::function<void()>& store, const std::function<void()>& baseline)
    {
        const bool baselineFirst = m_Store.rounds() % 2 == 1;
        if (baselineFirst)
            m_Baseline.add(baseline);
        m_State->SetIterationTime(m_Store.add(store));
        if (!baselineFirst)
            m_Baseline.add(baseline);
    }

    void report()
    {
        if (m_Store.rounds() == 0)
            return;
        const auto rounds = static_cast<int64_t>(m_Store.rounds());
        m_State->SetBytesProcessed(rounds * s_Blocks * s_BlockBytes);
        m_State->counters["store_ms"] = m_Store.median() * s_MsPerSecond;
        m_State->counters["baseline_ms"] = m_Baseline.median() * s_MsPerSecond;
        m_State->counters["ratio"] = m_Store.median() / m_Baseline.median();
        m_State->counters["cpu_ratio"] = m_Store.processorMedian() / m_Baseline.processorMedian();
    }

private:
    benchmark::State* m_State;
    RoundTimes m_Store;
    RoundTimes m_Baseline;
};

// Hands the blocks straight to the writer, so the manager is not measured.
void writeFiles(benchmark::State& state, Blobs (*make)())
{
    const Blobs blobs = make();
    const SampleBlocks::Hashes hashes = randomHashes();
    const QTemporaryDir directory;
    const QString baselineRoot = directory.path() + "/baseline/";
    const QString storeRoot = directory.path() + "/store/";
    ZebDataBlockWriteThread_Pattern1 writer(storeRoot, s_Buckets, nullptr);
    writer.start();
    // Once this returns, the thread has started and is idle, so the first block does not wait.
    writer.flush(hashes.front());
    Comparison comparison(&state);
    for ([[maybe_unused]] auto _ : state) {
        for (int bucket = 0; bucket < s_Buckets; ++bucket) {
            QDir().mkpath(baselineRoot + QString::number(bucket));
            QDir().mkpath(storeRoot + "/" + QString::number(bucket));
        }
        std::vector<std::unique_ptr<ZebDataBlock>> blocks;
        for (const QByteArray& blob : blobs)
            blocks.push_back(std::make_unique<ZebDataBlock>(blob));
        const qint64 before = writer.bytesWritten();
        qint64 baselineBytes = 0;
        comparison.measure(
            [&] {
                for (size_t i = 0; i < blocks.size(); ++i) {
                    writer.writeBlock(ZebDataBlockManager::PreloadNormal, hashes[i],
                                      blocks[i].get(), false);
                }
                writer.flush();
            },
            [&] {
                for (size_t i = 0; i < blobs.size(); ++i) {
                    const QString bucket = QString::number(i % s_Buckets);
                    baselineBytes += writeBaseline(
                        baselineRoot + bucket + "/" + hashes[i]->toString(), blobs[i]);
                }
            });
        if (baselineBytes == 0 || writer.bytesWritten() - before != baselineBytes) {
            state.SkipWithError("the store and the baseline wrote different files");
            break;
        }
        QDir(baselineRoot).removeRecursively();
        QDir(storeRoot).removeRecursively();
    }
    comparison.report();
    writer.closeDown();
    writer.wait();
}

void readFiles(benchmark::State& state, Blobs (*make)())
{
    const Blobs blobs = make();
    const BenchStore store;
    ZebDataBlockManager& manager = BenchStore::manager();
    {
        std::vector<ZebDataReference> references;
        std::vector<QString> paths;
        for (const ZebSmartPointer<ZebDataHash>& hash : randomHashes()) {
            references.emplace_back(hash);
            paths.push_back(manager.getBlockDestination(QString(), hash->toString()));
        }
        for (int bucket = 0; bucket < s_Buckets; ++bucket)
            QDir().mkpath(ZebBlockPlace::directory(store.root(), QString(), bucket));
        for (size_t i = 0; i < paths.size(); ++i)
            writeBaseline(paths[i], blobs[i]);
        Comparison comparison(&state);
        for ([[maybe_unused]] auto _ : state) {
            manager.freeAllBlocks();
            qint64 storeBytes = 0;
            // Kept until the end of the round, as the store keeps its blocks.
            Blobs baselineBlocks;
            comparison.measure(
                [&] {
                    for (const ZebDataReference& reference : references) {
                        const ZebConstAccessor accessor = reference.constAccessor();
                        storeBytes += accessor.isNull() ? 0 : accessor.size();
                    }
                },
                [&] {
                    for (const QString& path : paths)
                        baselineBlocks.push_back(readBaseline(path));
                });
            if (baselineBlocks != blobs || storeBytes != qint64(s_Blocks) * s_BlockBytes) {
                state.SkipWithError("the store and the baseline read different bytes");
                break;
            }
        }
        comparison.report();
    }
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
