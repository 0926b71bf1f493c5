// What preloading gains: blocks that are on disk only, read one after another as they stand, and
// read after all of them have been asked for ahead of need.
//
// Each row measures both, round about: "plain_ms" and "preload_ms" are medians of single rounds,
// and "ratio" is preload by plain: below 1 preloading is the shorter way. A row with "Digest" does
// work on each block that it has got, which is what a preload can hide the disk behind; a row
// without shows the bare cost. The files come from the page cache.

#include "bench/RoundTimes.h"

#include "data/ZebDataReference.h"
#include "hash/ZebDataHash.h"
#include "manager/ZebDataBlockManager.h"

#include <QByteArray>
#include <QStringList>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <random>
#include <vector>

namespace {

using References = std::vector<ZebDataReference>;

constexpr int s_BlockBytes = 256 * 1024;
constexpr int s_Blocks = 32;
constexpr int s_Buckets = 10;
constexpr double s_MsPerSecond = 1e3;
constexpr qint64 s_MemoryLimit = 1024LL * 1024 * 1024;

ZebDataBlockManager& manager()
{
    return ZebDataBlockManager::instance();
}

// Bytes of 16 values, which a codec makes about half as long.
QByteArray content(unsigned seed)
{
    std::mt19937 random(seed);
    QByteArray bytes(s_BlockBytes, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(random() & 0x0FU);
    return bytes;
}

// Reads every block and, if asked, digests its bytes. Returns how many bytes there were.
qint64 readAll(const References& references, bool digest)
{
    qint64 bytes = 0;
    for (const ZebDataReference& reference : references) {
        const ZebConstAccessor accessor = reference.constAccessor();
        if (accessor.isNull())
            continue;
        bytes += accessor.size();
        if (digest) {
            const ZebDataHash hash(accessor.data(), accessor.size(), ZebDataHash::Hash512);
            benchmark::DoNotOptimize(hash.data());
        }
    }
    return bytes;
}

void preload(benchmark::State& state, bool digest)
{
    const QTemporaryDir root;
    manager().setup(QStringList(root.path()), s_MemoryLimit, s_Buckets);
    {
        References references;
        for (unsigned i = 0; i < s_Blocks; ++i) {
            references.push_back(manager().addBlock(content(i), ZebModifyAccessor::Cached, true));
        }
        manager().flush(true);
        RoundTimes plain;
        RoundTimes preloaded;
        qint64 bytes = 0;
        for ([[maybe_unused]] auto _ : state) {
            // Which way comes first changes, so that neither always finds the warmer machine.
            const bool plainFirst = plain.rounds() % 2 == 0;
            for (const bool isPlain : {plainFirst, !plainFirst}) {
                manager().freeAllBlocks();
                if (isPlain) {
                    plain.add([&] { bytes += readAll(references, digest); });
                    continue;
                }
                state.SetIterationTime(preloaded.add([&] {
                    for (const ZebDataReference& reference : references)
                        reference.preload(ZebDataBlockManager::PreloadNormal);
                    bytes += readAll(references, digest);
                }));
            }
        }
        if (bytes != qint64(state.iterations()) * 2 * s_Blocks * s_BlockBytes)
            state.SkipWithError("a block could not be had");
        state.counters["plain_ms"] = plain.median() * s_MsPerSecond;
        state.counters["preload_ms"] = preloaded.median() * s_MsPerSecond;
        state.counters["ratio"] = preloaded.median() / plain.median();
        state.SetBytesProcessed(state.iterations() * s_Blocks * s_BlockBytes);
    }
    manager().cleanUp();
}

BENCHMARK_CAPTURE(preload, bare, false)
    ->Name("Preload/Bare")
    ->Iterations(11)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(preload, digest, true)
    ->Name("Preload/Digest")
    ->Iterations(11)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

} // namespace
