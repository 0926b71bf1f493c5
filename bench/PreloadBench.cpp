// The gain of preloading: blocks that are only on disk, read one by one, and read after all of them
// were preloaded.
//
// Each row measures both in interleaved rounds: "plain_ms" and "preload_ms" are medians of single
// rounds, and "ratio" is preload by plain; below 1 preloading is faster. A row with "Digest" does
// work on each block after reading it, during which a preload can read the next ones; a row without
// shows the cost of reading alone. The files come from the page cache.

#include "bench/BenchStore.h"
#include "bench/RoundTimes.h"
#include "bench/SampleBlocks.h"

#include "data/ZebDataReference.h"
#include "hash/ZebDataHash.h"

#include <QByteArray>

#include <benchmark/benchmark.h>

#include <random>
#include <vector>

namespace {

using References = std::vector<ZebDataReference>;

constexpr int s_BlockBytes = 256 * 1024;
constexpr int s_Blocks = 32;
constexpr double s_MsPerSecond = 1e3;

// Bytes of 16 values, which compress to about half their size.
QByteArray sampleBytes(unsigned seed)
{
    constexpr unsigned mask = 0x0FU;
    std::mt19937 random(seed);
    return SampleBlocks::noise(&random, s_BlockBytes, mask);
}

// Reads every block and, if `digest` is set, digests its bytes. Returns the number of bytes.
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
    const BenchStore store;
    {
        References references;
        for (unsigned i = 0; i < s_Blocks; ++i)
            references.push_back(BenchStore::add(sampleBytes(i)));
        BenchStore::manager().flush(true);
        RoundTimes plain;
        RoundTimes preloaded;
        qint64 bytes = 0;
        for ([[maybe_unused]] auto _ : state) {
            // The order alternates, so that neither form always finds the warmer machine.
            const bool plainFirst = plain.rounds() % 2 == 0;
            for (const bool isPlain : {plainFirst, !plainFirst}) {
                BenchStore::manager().freeAllBlocks();
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
            state.SkipWithError("a block cannot be loaded");
        state.counters["plain_ms"] = plain.median() * s_MsPerSecond;
        state.counters["preload_ms"] = preloaded.median() * s_MsPerSecond;
        state.counters["ratio"] = preloaded.median() / plain.median();
        state.SetBytesProcessed(state.iterations() * s_Blocks * s_BlockBytes);
    }
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
