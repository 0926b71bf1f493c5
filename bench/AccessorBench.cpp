// What it costs to open and close an accessor on a resident block, alone and beside another thread.

#include "data/ZebDataReference.h"
#include "manager/ZebDataBlockManager.h"

#include <QByteArray>
#include <QStringList>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

namespace {

constexpr qint64 s_MemoryLimit = 64LL * 1024 * 1024;
constexpr int s_BlockSize = 4096;

// The store on a cache root of its own with one resident block for each thread of a run.
class ResidentBlocks
{
public:
    explicit ResidentBlocks(int count)
    {
        ZebDataBlockManager& manager = ZebDataBlockManager::instance();
        manager.setup(QStringList(m_Directory.path()), s_MemoryLimit);
        for (int i = 0; i < count; ++i) {
            const QByteArray bytes(s_BlockSize, static_cast<char>(i));
            m_References.push_back(manager.addBlock(bytes, ZebModifyAccessor::Cached, true));
        }
    }
    ~ResidentBlocks()
    {
        m_References.clear();
        ZebDataBlockManager::instance().cleanUp(true);
    }
    ResidentBlocks(const ResidentBlocks&) = delete;
    ResidentBlocks& operator=(const ResidentBlocks&) = delete;

    const ZebDataReference& reference(int index) const
    {
        return m_References[static_cast<size_t>(index)];
    }

private:
    QTemporaryDir m_Directory;
    std::vector<ZebDataReference> m_References;
};

// Made before the threads of a run start, and gone after they have ended.
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

// Waiting counts, so real time is what is measured.
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
