// The cost of opening and closing an accessor on a resident block, with one thread and with two.

#include "bench/BenchStore.h"

#include "data/ZebDataReference.h"

#include <QByteArray>

#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

namespace {

constexpr qint64 s_MemoryLimit = 64LL * 1024 * 1024;
constexpr int s_BlockSize = 4096;

// A store with one resident block for each thread of a run.
class ResidentBlocks
{
public:
    explicit ResidentBlocks(int count) : m_Store(s_MemoryLimit)
    {
        for (int i = 0; i < count; ++i)
            m_References.push_back(BenchStore::add(QByteArray(s_BlockSize, static_cast<char>(i))));
    }

    const ZebDataReference& reference(int index) const
    {
        return m_References[static_cast<size_t>(index)];
    }

private:
    BenchStore m_Store;
    std::vector<ZebDataReference> m_References;
};

// Created before the threads of a run start, and destroyed after they have ended.
std::unique_ptr<ResidentBlocks> s_Blocks;

void makeBlocks(const benchmark::State& state)
{
    s_Blocks = std::make_unique<ResidentBlocks>(state.threads());
}

void dropBlocks(const benchmark::State& state)
{
    Q_UNUSED(state)
    s_Blocks.reset();
}

void openAndClose(benchmark::State* state, const ZebDataReference& reference)
{
    for ([[maybe_unused]] auto _ : *state) {
        const ZebConstAccessor accessor = reference.constAccessor();
        benchmark::DoNotOptimize(accessor.data());
    }
    state->SetItemsProcessed(static_cast<int64_t>(state->iterations()));
}

// Real time, so that waiting for a lock counts.
void threads(benchmark::internal::Benchmark* benchmark)
{
    benchmark->Setup(makeBlocks)->Teardown(dropBlocks)->Threads(1)->Threads(2)->UseRealTime();
}

void OpenAndCloseOneBlock(benchmark::State& state)
{
    const ZebDataReference mine(s_Blocks->reference(0));
    openAndClose(&state, mine);
}
BENCHMARK(OpenAndCloseOneBlock)->Apply(threads);

void OpenAndCloseABlockPerThread(benchmark::State& state)
{
    const ZebDataReference mine(s_Blocks->reference(state.thread_index()));
    openAndClose(&state, mine);
}
BENCHMARK(OpenAndCloseABlockPerThread)->Apply(threads);

} // namespace
