// The cost of admission when every block evicts another one, and when very many blocks are
// resident. Each block leaves a file, so run these with the temporary directory (TMPDIR) in memory.

#include "bench/BenchStore.h"
#include "bench/FixedLimitStore.h"
#include "bench/HeapBytes.h"
#include "bench/SampleBlocks.h"

#include "data/ZebDataReference.h"
#include "manager/ZebSystemMemory.h"

#include <QByteArray>
#include <QElapsedTimer>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <vector>

#include <malloc.h>

namespace {

constexpr qint64 s_Megabyte = 1048576;
constexpr qint64 s_Limit = 64 * s_Megabyte;
constexpr int s_SmallBlock = 4096;
constexpr int s_LargeBlock = 256 * 1024;
constexpr int s_Tenths = 10;

// An upper bound of what the store needs for a block in addition to its bytes.
constexpr qint64 s_MostOverhead = 1024;

// The number of admissions between two waits for the writers.
constexpr qint64 s_AdmissionsPerWait = 10000;

ZebDataBlockManager& manager()
{
    return ZebDataBlockManager::instance();
}

// Distinct blocks that cost the writers next to nothing to compress, because the writers share the
// processors with what is measured.
class DistinctBlocks
{
public:
    explicit DistinctBlocks(int size) : m_Bytes(size, 'z') {}

    const QByteArray& next()
    {
        SampleBlocks::stamp(&m_Bytes, ++m_Count);
        return m_Bytes;
    }

private:
    QByteArray m_Bytes;
    quint64 m_Count = 0;
};

// Touches the heap before anything is measured: on a virtual machine, the first touch of a page can
// take longer than an admission.
void touchHeap(qint64 bytes)
{
    // All pieces come from one heap that never shrinks: a piece is below the threshold for a
    // mapping of its own.
    constexpr qint64 piece = 16 * s_Megabyte;
    ::mallopt(M_MMAP_THRESHOLD, static_cast<int>(2 * piece));
    ::mallopt(M_TRIM_THRESHOLD, -1);
    std::vector<std::vector<char>> pieces;
    for (qint64 done = 0; done < bytes; done += piece)
        pieces.emplace_back(static_cast<std::size_t>(std::min(piece, bytes - done)), 't');
}

// Admission into a full store, with the digest and without waiting for the disk.
void admissionWithEviction(benchmark::State& state)
{
    const auto size = static_cast<int>(state.range(0));
    const FixedLimitStore store(s_Limit);
    DistinctBlocks blocks(size);
    // A block without references is freed after its write and never evicted, so the references
    // outlive the residency of their blocks.
    std::vector<ZebDataReference> references(static_cast<std::size_t>(2 * s_Limit / size));
    std::size_t next = 0;
    const auto admit = [&] {
        references[next] = BenchStore::add(blocks.next());
        next = (next + 1) % references.size();
    };
    for (std::size_t i = 0; i < references.size(); ++i)
        admit();
    BenchStore::waitForWriters();
    for ([[maybe_unused]] auto _ : state) {
        admit();
        if (manager().isWriteThreadsFull()) {
            state.PauseTiming();
            BenchStore::waitForWriters();
            state.ResumeTiming();
        }
    }
    if (manager().liveBytes() > s_Limit)
        state.SkipWithError("the store holds more than its limit");
    state.SetBytesProcessed(state.iterations() * size);
    state.counters["resident_blocks"] = static_cast<double>(manager().liveBlocks());
}

// The same with room for every block. The difference is the cost of eviction.
void admissionWithoutEviction(benchmark::State& state)
{
    const auto size = static_cast<int>(state.range(0));
    const FixedLimitStore store(4 * s_Limit);
    DistinctBlocks blocks(size);
    std::vector<ZebDataReference> references;
    for ([[maybe_unused]] auto _ : state) {
        references.push_back(BenchStore::add(blocks.next()));
        if (manager().liveBytes() > 2 * s_Limit) {
            state.PauseTiming();
            manager().freeAllBlocks();
            references.clear();
            state.ResumeTiming();
        }
    }
    state.SetBytesProcessed(state.iterations() * size);
}

// A full store pays this once per admission, because after an eviction the next request measures.
void measureFreeMemory(benchmark::State& state)
{
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(ZebGetFreePhysicalMemoryBytes());
}

// Fills the store with small blocks that all stay resident. The time per block of the last tenth,
// compared with the first, shows whether admission slows down.
void admissionWithManyResident(benchmark::State& state)
{
    const qint64 count = state.range(0);
    const qint64 perTenth = count / s_Tenths;
    touchHeap(count * (s_SmallBlock + s_MostOverhead));
    for ([[maybe_unused]] auto _ : state) {
        const FixedLimitStore store(2 * count * s_SmallBlock + s_Limit);
        DistinctBlocks blocks(s_SmallBlock);
        std::vector<ZebDataReference> references(static_cast<std::size_t>(perTenth * s_Tenths));
        const qint64 memoryBefore = HeapBytes::inUse();
        std::vector<double> nanoseconds;
        auto reference = references.begin();
        for (int tenth = 0; tenth < s_Tenths; ++tenth) {
            qint64 elapsed = 0;
            for (qint64 done = 0; done < perTenth;) {
                // Each stretch starts with an idle writer.
                BenchStore::waitForWriters();
                QElapsedTimer timer;
                timer.start();
                for (qint64 i = 0; i < s_AdmissionsPerWait && done < perTenth; ++i, ++done)
                    *reference++ = BenchStore::add(blocks.next());
                elapsed += timer.nsecsElapsed();
            }
            nanoseconds.push_back(static_cast<double>(elapsed) / static_cast<double>(perTenth));
        }
        BenchStore::waitForWriters();
        const auto resident = static_cast<double>(manager().liveBlocks());
        if (manager().liveBlocks() != perTenth * s_Tenths)
            state.SkipWithError("a block was evicted");
        const auto memory = static_cast<double>(HeapBytes::inUse() - memoryBefore);
        double total = 0;
        for (const double perBlock : nanoseconds)
            total += perBlock * static_cast<double>(perTenth);
        state.SetIterationTime(total / 1e9);
        state.counters["first_tenth_ns"] = nanoseconds.front();
        state.counters["last_tenth_ns"] = nanoseconds.back();
        state.counters["last_to_first"] = nanoseconds.back() / nanoseconds.front();
        state.counters["overhead_B_per_block"] = memory / resident - s_SmallBlock;
        references.clear();
    }
    state.SetItemsProcessed(state.iterations() * perTenth * s_Tenths);
}

} // namespace

BENCHMARK(admissionWithEviction)->Arg(s_SmallBlock)->Arg(s_LargeBlock);
BENCHMARK(admissionWithoutEviction)->Arg(s_SmallBlock)->Arg(s_LargeBlock);
BENCHMARK(measureFreeMemory);

// The larger ones need gigabytes of memory and disk; choose them with --benchmark_filter.
BENCHMARK(admissionWithManyResident)
    ->Arg(20000)
    ->Arg(200000)
    ->Arg(1000000)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
