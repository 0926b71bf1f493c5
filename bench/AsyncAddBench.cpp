// What asynchronous adding gains: the same new blocks with `immediate` off and on, by one thread
// and by two.
//
// Each row measures both, round about. "immediate_us" and "async_us" are medians for one block of
// one thread, until the block is in the store; "call_us" is how long the asynchronous calls alone
// keep their thread. "ratio" is async by immediate, "call_ratio" call by immediate: below 1 the
// asynchronous way is the shorter one. The hashing pool has a thread for each processor, and the
// writer works beside it, so on a small machine they all share what there is.

#include "bench/RoundTimes.h"

#include "data/ZebDataReference.h"
#include "manager/ZebDataBlockManager.h"

#include <QByteArray>
#include <QSemaphore>
#include <QStringList>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using References = std::vector<ZebDataReference>;

constexpr qint64 s_MemoryLimit = 1024LL * 1024 * 1024;
constexpr qint64 s_BytesPerThread = 2LL * 1024 * 1024;
constexpr double s_UsPerSecond = 1e6;

ZebDataBlockManager& manager()
{
    return ZebDataBlockManager::instance();
}

// The store on a cache root of its own.
class Store
{
public:
    Store() { manager().setup(QStringList(m_Root.path()), s_MemoryLimit); }
    ~Store() { manager().cleanUp(); }
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

private:
    QTemporaryDir m_Root;
};

double secondsSince(Clock::time_point begin)
{
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

// Contents that nobody has had, and that the writer compresses at next to no cost.
std::vector<QByteArray> freshContents(int size, std::size_t count)
{
    static quint64 s_Stamp = 0;
    std::vector<QByteArray> contents;
    for (std::size_t i = 0; i < count; ++i) {
        QByteArray bytes(size, 'a');
        ++s_Stamp;
        std::memcpy(bytes.data(), &s_Stamp, sizeof s_Stamp);
        contents.push_back(bytes);
    }
    return contents;
}

struct AddTimes
{
    // Until every call has returned, and until every block is in the store.
    double m_Calls = 0;
    double m_All = 0;
};

// Has `threads` threads add that many new blocks each. The threads have started before the clock
// does, and the blocks end after it has stopped.
AddTimes addBlocks(int threads, int size, bool immediate)
{
    const auto perThread = static_cast<std::size_t>(s_BytesPerThread / size);
    std::vector<std::vector<QByteArray>> contents;
    std::vector<References> references(static_cast<std::size_t>(threads));
    for (References& theirs : references) {
        contents.push_back(freshContents(size, perThread));
        theirs.reserve(perThread);
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
            for (const QByteArray& bytes : contents[thread]) {
                references[thread].push_back(
                    manager().addBlock(bytes, ZebModifyAccessor::Cached, immediate));
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
    const Store store;
    RoundTimes immediate;
    RoundTimes calls;
    RoundTimes async;
    const auto idle = [] {
        manager().flush(false, ZebDataBlockManager::WriteThreads);
    };
    for ([[maybe_unused]] auto _ : state) {
        // Which way comes first changes, so that neither always finds the warmer machine.
        const bool immediateFirst = immediate.rounds() % 2 == 0;
        for (const bool isImmediate : {immediateFirst, !immediateFirst}) {
            const AddTimes times = addBlocks(threads, size, isImmediate);
            idle();
            if (isImmediate) {
                immediate.addSeconds(times.m_All);
            } else {
                calls.addSeconds(times.m_Calls);
                async.addSeconds(times.m_All);
                state.SetIterationTime(times.m_All);
            }
        }
    }
    const auto perThread = static_cast<double>(s_BytesPerThread / size);
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
