// The cost of other operations on resident blocks, and the memory that the blocks need.

#include "bench/BenchStore.h"
#include "bench/FixedLimitStore.h"
#include "bench/HeapBytes.h"
#include "bench/ResidentBlocks.h"
#include "bench/SampleBlocks.h"

#include "data/ZebDataReference.h"
#include "data/ZebModifyAccessor.h"

#include <QByteArray>

#include <benchmark/benchmark.h>

#include <cstddef>
#include <vector>

namespace {

void setItems(benchmark::State* state)
{
    state->SetItemsProcessed(static_cast<int64_t>(state->iterations()));
}

void isInMemory(benchmark::State& state)
{
    const ZebDataReference mine(ResidentBlocks::ofRow()->reference(state.thread_index()));
    for ([[maybe_unused]] auto _ : state) {
        if (!mine.isInMemory()) {
            state.SkipWithError("a block is not resident");
            break;
        }
    }
    setItems(&state);
}

void preload(benchmark::State& state)
{
    const ZebDataReference mine(ResidentBlocks::ofRow()->reference(state.thread_index()));
    for ([[maybe_unused]] auto _ : state)
        mine.preload();
    setItems(&state);
}

void modifyAccessor(benchmark::State& state)
{
    const ZebDataReference mine(ResidentBlocks::ofRow()->reference(state.thread_index()));
    for ([[maybe_unused]] auto _ : state) {
        const ZebModifyAccessor accessor = mine.modifyAccessor();
        benchmark::DoNotOptimize(accessor.data());
    }
    setItems(&state);
}

// Copies and drops a reference to a block of the thread, or to a block that the threads share.
void copyReference(benchmark::State& state, bool shared)
{
    const ZebDataReference mine(
        ResidentBlocks::ofRow()->reference(shared ? 0 : state.thread_index()));
    for ([[maybe_unused]] auto _ : state) {
        // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): it is what is measured.
        const ZebDataReference copy(mine);
        benchmark::DoNotOptimize(&copy);
    }
    setItems(&state);
}

// Each thread adds the bytes of a resident block of its own.
void addDuplicate(benchmark::State& state)
{
    const ZebDataReference mine(ResidentBlocks::ofRow()->reference(state.thread_index()));
    QByteArray bytes;
    {
        const ZebConstAccessor accessor = mine.constAccessor();
        bytes = QByteArray(reinterpret_cast<const char*>(accessor.data()),
                           static_cast<int>(accessor.size()));
    }
    for ([[maybe_unused]] auto _ : state) {
        if (BenchStore::add(bytes) != mine) {
            state.SkipWithError("equal bytes became two blocks");
            break;
        }
    }
    setItems(&state);
}

// The heap that the smallest distinct blocks need: each with its bytes, its hash, and its share of
// the store's tables. Then the heap that their hashes need when no block is resident.
void memoryOfBlocks(benchmark::State& state)
{
    const int count = static_cast<int>(state.range(0));
    constexpr qint64 limit = 64LL * 1024 * 1024;
    QByteArray bytes(static_cast<int>(sizeof(quint64)), '\0');
    double resident = 0;
    double evicted = 0;
    for ([[maybe_unused]] auto _ : state) {
        const FixedLimitStore store(limit);
        std::vector<ZebDataReference> references(static_cast<std::size_t>(count));
        // What the first block creates stays.
        BenchStore::add(QByteArray("first"));
        BenchStore::waitForWriters();
        const qint64 before = HeapBytes::inUse();
        for (int i = 0; i < count; ++i) {
            SampleBlocks::stamp(&bytes, static_cast<quint64>(i));
            references[static_cast<std::size_t>(i)] = BenchStore::add(bytes);
        }
        BenchStore::waitForWriters();
        if (BenchStore::manager().liveBlocks() < count)
            state.SkipWithError("a block is not resident");
        resident = static_cast<double>(HeapBytes::inUse() - before);
        BenchStore::manager().freeAllBlocks();
        evicted = static_cast<double>(HeapBytes::inUse() - before);
    }
    state.counters["B_per_resident_block"] = resident / count;
    state.counters["B_per_evicted_block"] = evicted / count;
}

} // namespace

BENCHMARK(isInMemory)->Name("Resident/isInMemory")->Apply(ResidentBlocks::aBlockPerThread);
BENCHMARK(preload)->Name("Resident/preload")->Apply(ResidentBlocks::aBlockPerThread);
BENCHMARK(modifyAccessor)->Name("Resident/modifyAccessor")->Apply(ResidentBlocks::aBlockPerThread);
BENCHMARK_CAPTURE(copyReference, own, false)
    ->Name("Resident/copyReference_own")
    ->Apply(ResidentBlocks::aBlockPerThread);
BENCHMARK_CAPTURE(copyReference, shared, true)
    ->Name("Resident/copyReference_shared")
    ->Apply(ResidentBlocks::aBlockPerThread);
BENCHMARK(addDuplicate)->Name("Resident/addDuplicate")->Apply(ResidentBlocks::aBlockPerThread);

// The larger one makes many files; choose it with --benchmark_filter.
BENCHMARK(memoryOfBlocks)
    ->Name("Resident/memory")
    ->Arg(1000)
    ->Arg(100000)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
