// The cost of opening and closing an accessor on a resident block, with one thread and with
// several.

#include "bench/FixedLimitStore.h"
#include "bench/ResidentBlocks.h"
#include "bench/SampleBlocks.h"

#include "data/ZebDataReference.h"

#include <QByteArray>
#include <QElapsedTimer>

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <thread>
#include <vector>

namespace {

using References = ResidentBlocks::References;

constexpr int s_BlockBytes = 4096;
constexpr int s_SmallBlockBytes = 1024;
constexpr int s_WorkingSet = 1000;
constexpr int s_LargeSet = 100000;
constexpr int s_HotBlocks = 64;
constexpr double s_NsPerSecond = 1e9;

void makeSharedBlocks(const benchmark::State& state)
{
    ResidentBlocks::ofRow() =
        std::make_unique<ResidentBlocks>(static_cast<int>(state.range(0)), s_SmallBlockBytes);
}

void makeBlocksOfEachThread(const benchmark::State& state)
{
    ResidentBlocks::ofRow() = std::make_unique<ResidentBlocks>(
        state.threads() * static_cast<int>(state.range(0)), s_SmallBlockBytes);
}

void openAndClose(const ZebDataReference& reference)
{
    const ZebConstAccessor accessor = reference.constAccessor();
    benchmark::DoNotOptimize(accessor.data());
}

void openAndCloseOne(benchmark::State* state, const ZebDataReference& reference)
{
    for ([[maybe_unused]] auto _ : *state)
        openAndClose(reference);
    state->SetItemsProcessed(static_cast<int64_t>(state->iterations()));
}

void openAndCloseAll(benchmark::State* state, const References& references)
{
    std::size_t next = 0;
    for ([[maybe_unused]] auto _ : *state) {
        openAndClose(references[next]);
        if (++next == references.size())
            next = 0;
    }
    state->SetItemsProcessed(static_cast<int64_t>(state->iterations()));
}

void OpenAndCloseOneBlock(benchmark::State& state)
{
    const ZebDataReference mine(ResidentBlocks::ofRow()->reference(0));
    openAndCloseOne(&state, mine);
}

void OpenAndCloseABlockPerThread(benchmark::State& state)
{
    const ZebDataReference mine(ResidentBlocks::ofRow()->reference(state.thread_index()));
    openAndCloseOne(&state, mine);
}

// All threads use the same blocks, each in an order of its own.
void OpenAndCloseSharedBlocks(benchmark::State& state)
{
    openAndCloseAll(&state, ResidentBlocks::ofRow()->shuffled(0, static_cast<int>(state.range(0)),
                                                              state.thread_index()));
}

void OpenAndCloseOwnBlocks(benchmark::State& state)
{
    const int count = static_cast<int>(state.range(0));
    openAndCloseAll(&state, ResidentBlocks::ofRow()->shuffled(state.thread_index() * count, count,
                                                              state.thread_index()));
}

// Another thread that adds distinct blocks of 4 KiB without a pause, from start() to destruction.
//
// It adds the same blocks again and again. Each block has been evicted or released in between.
// Their files exist after the first turn, so the writer, which shares the processors with what is
// measured, has almost nothing to do.
class AdmittingThread
{
public:
    static constexpr int s_Cycle = 1024;

    /// Keeps the references to the last `held` blocks. Adds each block once, with its file.
    explicit AdmittingThread(std::size_t held) : m_Held(held)
    {
        while (m_Admitted < s_Cycle)
            admit();
        BenchStore::waitForWriters();
        m_Admitted = 0;
    }
    ~AdmittingThread()
    {
        m_Stopped = true;
        m_Thread.join();
    }
    AdmittingThread(const AdmittingThread&) = delete;
    AdmittingThread& operator=(const AdmittingThread&) = delete;

    /// Returns after the first admission.
    void start()
    {
        m_Timer.start();
        m_Thread = std::thread([this] {
            while (!m_Stopped)
                admit();
        });
        while (m_Admitted == 0)
            std::this_thread::yield();
    }

    double admissionsPerSecond() const
    {
        return static_cast<double>(m_Admitted) * s_NsPerSecond /
               static_cast<double>(m_Timer.nsecsElapsed());
    }

private:
    void admit()
    {
        const quint64 number = m_Admitted;
        // Numbers that no hot block has.
        SampleBlocks::stamp(&m_Bytes, ~(number % s_Cycle));
        m_Held[number % m_Held.size()] = BenchStore::add(m_Bytes);
        m_Admitted = number + 1;
    }

    QByteArray m_Bytes = QByteArray(s_BlockBytes, 'n');
    References m_Held;
    std::atomic<quint64> m_Admitted{0};
    std::atomic<bool> m_Stopped{false};
    QElapsedTimer m_Timer;
    std::thread m_Thread;
};

// Room for half of the cycle next to the hot blocks: each admission evicts.
constexpr qint64 s_FullLimit = (s_HotBlocks + AdmittingThread::s_Cycle / 2) * s_BlockBytes;
constexpr qint64 s_RoomyLimit = 4 * s_FullLimit;

References hotBlocks()
{
    References references;
    QByteArray bytes(s_BlockBytes, 'h');
    for (quint64 i = 0; i < s_HotBlocks; ++i) {
        SampleBlocks::stamp(&bytes, i);
        references.push_back(BenchStore::add(bytes));
    }
    BenchStore::waitForWriters();
    return references;
}

// One thread reads next to another one that admits. The time is that of the reader.
void readNextToAdmission(benchmark::State& state, qint64 limit, std::size_t held)
{
    constexpr int buckets = 10;
    const FixedLimitStore store(limit, buckets);
    AdmittingThread admitting(held);
    const References references = hotBlocks();
    admitting.start();
    openAndCloseAll(&state, references);
    state.counters["admissions/s"] = admitting.admissionsPerSecond();
}

// The other side: one thread admits, the other one reads. The time is that of the admission.
void admitNextToReads(benchmark::State& state, bool reads)
{
    constexpr int buckets = 10;
    const FixedLimitStore store(s_FullLimit, buckets);
    References references = hotBlocks();
    QByteArray bytes(s_BlockBytes, 'n');
    References held(AdmittingThread::s_Cycle);
    quint64 number = 0;
    const auto admit = [&] {
        SampleBlocks::stamp(&bytes, ~number);
        held[number] = BenchStore::add(bytes);
        number = (number + 1) % held.size();
    };
    for (std::size_t i = 0; i < held.size(); ++i)
        admit();
    BenchStore::waitForWriters();
    std::atomic<bool> stopped{!reads};
    std::thread reader([&stopped, references] {
        while (!stopped)
            for (const ZebDataReference& reference : references)
                openAndClose(reference);
    });
    for ([[maybe_unused]] auto _ : state)
        admit();
    stopped = true;
    reader.join();
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

} // namespace

BENCHMARK(OpenAndCloseOneBlock)->Apply(ResidentBlocks::aBlockPerThread);
BENCHMARK(OpenAndCloseABlockPerThread)->Apply(ResidentBlocks::aBlockPerThread);
BENCHMARK(OpenAndCloseSharedBlocks)
    ->Arg(s_WorkingSet)
    ->Setup(makeSharedBlocks)
    ->Teardown(ResidentBlocks::drop)
    ->Apply(ResidentBlocks::threadCounts);
BENCHMARK(OpenAndCloseOwnBlocks)
    ->Arg(s_WorkingSet)
    ->Setup(makeBlocksOfEachThread)
    ->Teardown(ResidentBlocks::drop)
    ->Apply(ResidentBlocks::threadCounts);

// More blocks than the processor's caches hold. A fixed number of reads, because each run creates
// the blocks and their files again; choose it with --benchmark_filter.
BENCHMARK(OpenAndCloseSharedBlocks)
    ->Arg(s_LargeSet)
    ->Iterations(20 * s_LargeSet)
    ->Setup(makeSharedBlocks)
    ->Teardown(ResidentBlocks::drop)
    ->Apply(ResidentBlocks::threadCounts);

BENCHMARK_CAPTURE(readNextToAdmission, evicting, s_FullLimit, AdmittingThread::s_Cycle)
    ->UseRealTime();
BENCHMARK_CAPTURE(readNextToAdmission, roomy, s_RoomyLimit, AdmittingThread::s_Cycle / 2)
    ->UseRealTime();
BENCHMARK_CAPTURE(admitNextToReads, no_reader, false)->UseRealTime();
BENCHMARK_CAPTURE(admitNextToReads, reader, true)->UseRealTime();
