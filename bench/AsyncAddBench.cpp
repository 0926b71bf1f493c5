// The gain of asynchronous admission: the same new blocks with `immediate` off and on, by one
// thread and by two.
//
// Each row measures both in interleaved rounds. "immediate_us" and "async_us" are medians per block
// of one thread, until the block is in the store; "call_us" is how long the asynchronous calls
// alone occupy their thread. "ratio" is async by immediate, "call_ratio" call by immediate; below 1
// the asynchronous form is faster. The hashing pool has a thread per processor, and the writer
// works at the same time, so on a small machine they share the processors.

#include "bench/BenchStore.h"
#include "bench/RoundTimes.h"
#include "bench/SampleBlocks.h"

#include "data/ZebDataReference.h"

#include <QByteArray>
#include <QSemaphore>

#include <benchmark/benchmark.h>

#include <chrono>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using References = std::vector<ZebDataReference>;

constexpr qint64 s_BytesPerThread = 2LL * 1024 * 1024;
constexpr double s_UsPerSecond = 1e6;

double secondsSince(Clock::time_point begin)
{
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

// Blocks that were never added before, and that cost the writer next to nothing to compress.
std::vector<QByteArray> freshBlocks(int size, std::size_t count)
{
    static quint64 s_Stamp = 0;
    std::vector<QByteArray> blocks;
    for (std::size_t i = 0; i < count; ++i) {
        QByteArray bytes(size, 'a');
        SampleBlocks::stamp(&bytes, ++s_Stamp);
        blocks.push_back(bytes);
    }
    return blocks;
}

struct AddTimes
{
    // Until every call has returned, and until every block is in the store.
    double m_Calls = 0;
    double m_All = 0;
};

// Lets `threads` threads add new blocks of s_BytesPerThread each. The threads start before the
// clock does, and the blocks are destroyed after it has stopped.
AddTimes addBlocks(int threads, int size, bool immediate)
{
    const auto perThread = static_cast<std::size_t>(s_BytesPerThread / size);
    std::vector<std::vector<QByteArray>> blocks;
    std::vector<References> references(static_cast<std::size_t>(threads));
    for (References& ofThread : references) {
        blocks.push_back(freshBlocks(size, perThread));
        ofThread.reserve(perThread);
    }
    QSemaphore ready;
    QSemaphore go;
    QSemaphore called;
    QSemaphore resolve;
    std::vector<std::thread> adders;
    for (std::size_t thread = 0; thread < references.size(); ++thread) {
        adders.emplace_back([&, thread] {
            ready.release();
            go.acquire();
            for (const QByteArray& bytes : blocks[thread]) {
                references[thread].push_back(
                    BenchStore::manager().addBlock(bytes, ZebModifyAccessor::Cached, immediate));
            }
            called.release();
            // Resolving helps the pool, so no thread begins before all calls are measured.
            resolve.acquire();
            for (const ZebDataReference& reference : references[thread])
                reference.resolveWork();
        });
    }
    ready.acquire(threads);
    AddTimes times;
    const Clock::time_point begin = Clock::now();
    go.release(threads);
    called.acquire(threads);
    times.m_Calls = secondsSince(begin);
    resolve.release(threads);
    for (std::thread& adder : adders)
        adder.join();
    times.m_All = secondsSince(begin);
    return times;
}

void asyncAdd(benchmark::State& state)
{
    const auto size = static_cast<int>(state.range(0));
    const auto threads = static_cast<int>(state.range(1));
    const BenchStore store;
    RoundTimes immediate;
    RoundTimes calls;
    RoundTimes async;
    for ([[maybe_unused]] auto _ : state) {
        // The order alternates, so that neither form always finds the warmer machine.
        const bool immediateFirst = immediate.rounds() % 2 == 0;
        for (const bool isImmediate : {immediateFirst, !immediateFirst}) {
            const AddTimes times = addBlocks(threads, size, isImmediate);
            BenchStore::waitForWriters();
            if (isImmediate) {
                immediate.addSeconds(times.m_All);
            } else {
                calls.addSeconds(times.m_Calls);
                async.addSeconds(times.m_All);
                state.SetIterationTime(times.m_All);
            }
        }
    }
    const qint64 blocksPerThread = s_BytesPerThread / size;
    const auto perThread = static_cast<double>(blocksPerThread);
    state.counters["immediate_us"] = immediate.median() / perThread * s_UsPerSecond;
    state.counters["async_us"] = async.median() / perThread * s_UsPerSecond;
    state.counters["call_us"] = calls.median() / perThread * s_UsPerSecond;
    state.counters["ratio"] = async.median() / immediate.median();
    state.counters["call_ratio"] = calls.median() / immediate.median();
    state.SetBytesProcessed(state.iterations() * s_BytesPerThread * threads);
}

BENCHMARK(asyncAdd)
    ->ArgNames({"bytes", "threads"})
    ->Args({4 * 1024, 1})
    ->Args({4 * 1024, 2})
    ->Args({256 * 1024, 1})
    ->Args({256 * 1024, 2})
    ->Iterations(11)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

} // namespace
