// The cost of admitting a block, compared with the digest that every admission computes.

#include "bench/BenchStore.h"
#include "bench/SampleBlocks.h"

#include "data/ZebDataReference.h"
#include "hash/ZebDataHash.h"

#include <QByteArray>

#include <benchmark/benchmark.h>

#include <vector>

namespace {

// The bytes of distinct blocks that are held before they are dropped.
constexpr qint64 s_HeldBytes = 64LL * 1024 * 1024;

void setBytes(benchmark::State* state)
{
    state->SetBytesProcessed(static_cast<int64_t>(state->iterations()) * state->range(0));
}

void sizes(benchmark::internal::Benchmark* benchmark)
{
    benchmark->ArgName("bytes")->Arg(4 * 1024)->Arg(256 * 1024);
}

void DigestAlone(benchmark::State& state)
{
    QByteArray bytes(static_cast<int>(state.range(0)), 'd');
    quint64 round = 0;
    for ([[maybe_unused]] auto _ : state) {
        SampleBlocks::stamp(&bytes, ++round);
        const ZebDataHash hash(bytes, ZebDataHash::Hash512);
        benchmark::DoNotOptimize(hash.data());
    }
    setBytes(&state);
}
BENCHMARK(DigestAlone)->Apply(sizes);

void AdmitDistinctBlocks(benchmark::State& state)
{
    const BenchStore store;
    QByteArray bytes(static_cast<int>(state.range(0)), 'a');
    const auto most = static_cast<size_t>(s_HeldBytes / state.range(0));
    std::vector<ZebDataReference> held;
    held.reserve(most);
    quint64 round = 0;
    for ([[maybe_unused]] auto _ : state) {
        SampleBlocks::stamp(&bytes, ++round);
        held.push_back(BenchStore::add(bytes));
        if (held.size() == most) {
            // Destroying the blocks is not part of admission.
            state.PauseTiming();
            held.clear();
            state.ResumeTiming();
        }
    }
    setBytes(&state);
}
BENCHMARK(AdmitDistinctBlocks)->Apply(sizes);

void AdmitDuplicates(benchmark::State& state)
{
    const BenchStore store;
    const QByteArray bytes(static_cast<int>(state.range(0)), 'b');
    const ZebDataReference resident = BenchStore::add(bytes);
    for ([[maybe_unused]] auto _ : state) {
        const ZebDataReference duplicate = BenchStore::add(bytes);
        if (duplicate != resident) {
            state.SkipWithError("equal bytes became two blocks");
            break;
        }
    }
    setBytes(&state);
}
BENCHMARK(AdmitDuplicates)->Apply(sizes);

} // namespace
