// What admission costs when every block drives another one out, and when very many blocks are
// resident. Each block leaves a file, so these want their temporary directory (TMPDIR) in memory.

#include "data/ZebDataReference.h"
#include "manager/ZebDataBlockManager.h"
#include "manager/ZebSystemMemory.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QStringList>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <vector>

#include <malloc.h>

namespace {

constexpr qint64 s_Megabyte = 1048576;
constexpr qint64 s_Limit = 64 * s_Megabyte;
constexpr int s_SmallBlock = 4096;
constexpr int s_LargeBlock = 256 * 1024;
constexpr int s_Tenths = 10;

// More than the store needs for a block beside its bytes.
constexpr qint64 s_MostOverhead = 1024;

// Many, so that no directory grows large.
constexpr int s_Buckets = 1000;

// How many admissions may pass between two looks at the writers' queue.
constexpr qint64 s_LookInterval = 10000;

ZebDataBlockManager& manager()
{
    return ZebDataBlockManager::instance();
}

// The store on a cache root of its own. The machine's free memory plays no part.
class Store
{
public:
    explicit Store(qint64 limit) : m_FreeTarget(manager().targetFreeMemorySize())
    {
        manager().setTargetFreeMemorySize(0);
        manager().setup(QStringList(m_Root.path()), limit, s_Buckets);
    }
    ~Store()
    {
        manager().cleanUp();
        manager().setTargetFreeMemorySize(m_FreeTarget);
    }
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

private:
    QTemporaryDir m_Root;
    qint64 m_FreeTarget;
};

// Contents that all differ, and that the writers compress at next to no cost: they share the
// processors with what is measured.
class Contents
{
public:
    explicit Contents(int size) : m_Bytes(size, 'z') {}

    const QByteArray& next()
    {
        ++m_Count;
        std::memcpy(m_Bytes.data(), &m_Count, sizeof m_Count);
        return m_Bytes;
    }

private:
    QByteArray m_Bytes;
    quint64 m_Count = 0;
};

ZebDataReference add(const QByteArray& bytes)
{
    return manager().addBlock(bytes, ZebModifyAccessor::Cached, true);
}

void waitForWriters()
{
    manager().flush(false, ZebDataBlockManager::WriteThreads);
}

// Bytes that the process has taken from the heap, what the heap itself needs for them included.
qint64 heapInUse()
{
    const struct mallinfo2 info = ::mallinfo2();
    return static_cast<qint64>(info.uordblks + info.hblkhd);
}

// Has the machine give its memory before anything is measured: a virtual one gets a page of its
// host's when it touches it for the first time, which takes longer than an admission.
void touchHeap(qint64 bytes)
{
    // All from one heap that never shrinks. A piece is smaller than what would be mapped for
    // itself.
    constexpr qint64 piece = 16 * s_Megabyte;
    ::mallopt(M_MMAP_THRESHOLD, static_cast<int>(2 * piece));
    ::mallopt(M_TRIM_THRESHOLD, -1);
    std::vector<std::vector<char>> pieces;
    for (qint64 done = 0; done < bytes; done += piece)
        pieces.emplace_back(static_cast<std::size_t>(std::min(piece, bytes - done)), 't');
}

// Admission into a full store. Digest included, as no admission goes without one; waiting for the
// disk not.
void admissionWithEviction(benchmark::State& state)
{
    const auto size = static_cast<int>(state.range(0));
    const Store store(s_Limit);
    Contents contents(size);
    // A block that nobody refers to ends with its write and is never evicted, so the references
    // outlast their blocks' stay in memory.
    std::vector<ZebDataReference> references(static_cast<std::size_t>(2 * s_Limit / size));
    std::size_t next = 0;
    const auto admit = [&] {
        references[next] = add(contents.next());
        next = (next + 1) % references.size();
    };
    for (std::size_t i = 0; i < references.size(); ++i)
        admit();
    waitForWriters();
    for (auto _ : state) {
        admit();
        if (manager().isWriteThreadsFull()) {
            state.PauseTiming();
            waitForWriters();
            state.ResumeTiming();
        }
    }
    if (manager().liveBytes() > s_Limit)
        state.SkipWithError("the store holds more than its limit");
    state.SetBytesProcessed(state.iterations() * size);
    state.counters["resident_blocks"] = static_cast<double>(manager().liveBlocks());
}

// The same with room for every block: what the eviction adds is the difference.
void admissionWithoutEviction(benchmark::State& state)
{
    const auto size = static_cast<int>(state.range(0));
    const Store store(4 * s_Limit);
    Contents contents(size);
    std::vector<ZebDataReference> references;
    for (auto _ : state) {
        references.push_back(add(contents.next()));
        if (manager().liveBytes() > 2 * s_Limit) {
            state.PauseTiming();
            manager().freeAllBlocks();
            references.clear();
            state.ResumeTiming();
        }
    }
    state.SetBytesProcessed(state.iterations() * size);
}

// What a full store pays once for each admission, since an eviction has the next request measured.
void measureFreeMemory(benchmark::State& state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(ZebGetFreePhysicalMemoryBytes());
}

// Fills the store with small blocks that all stay. Whether admission slows down shows in the time
// per block of the last tenth against that of the first.
void admissionWithManyResident(benchmark::State& state)
{
    const qint64 blocks = state.range(0);
    const qint64 perTenth = blocks / s_Tenths;
    touchHeap(blocks * (s_SmallBlock + s_MostOverhead));
    for (auto _ : state) {
        const Store store(2 * blocks * s_SmallBlock + s_Limit);
        Contents contents(s_SmallBlock);
        std::vector<ZebDataReference> references(static_cast<std::size_t>(perTenth * s_Tenths));
        const qint64 memoryBefore = heapInUse();
        std::vector<double> nanoseconds;
        auto reference = references.begin();
        for (int tenth = 0; tenth < s_Tenths; ++tenth) {
            qint64 elapsed = 0;
            for (qint64 done = 0; done < perTenth;) {
                // The same start for each stretch: an idle writer.
                waitForWriters();
                QElapsedTimer timer;
                timer.start();
                for (qint64 i = 0; i < s_LookInterval && done < perTenth; ++i, ++done)
                    *reference++ = add(contents.next());
                elapsed += timer.nsecsElapsed();
            }
            nanoseconds.push_back(static_cast<double>(elapsed) / static_cast<double>(perTenth));
        }
        waitForWriters();
        const auto resident = static_cast<double>(manager().liveBlocks());
        if (manager().liveBlocks() != perTenth * s_Tenths)
            state.SkipWithError("a block has left memory");
        const auto memory = static_cast<double>(heapInUse() - memoryBefore);
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

// The larger ones take gigabytes of memory and disk; pick by --benchmark_filter.
BENCHMARK(admissionWithManyResident)
    ->Arg(20000)
    ->Arg(200000)
    ->Arg(1000000)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
