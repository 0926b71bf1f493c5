// The cost of each part of an operation without a lock: the gate, the clock, and a word that one or
// several threads change. And the cost of closing the gate.

#include "bench/ResidentBlocks.h"
#include "bench/RoundTimes.h"

#include "hash/ZebReadGate.h"
#include "hash/ZebThreadSlot.h"
#include "hash/ZebUseClock.h"

#include <QtGlobal>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

constexpr double s_UsPerSecond = 1e6;

// Longer than the time after which the gate is plain again.
constexpr std::chrono::milliseconds s_Calm{15};

// A thread that enters the gate again and again, from construction to destruction.
class EnteringThread
{
public:
    EnteringThread()
        : m_Thread([this] {
              ZebThreadSlot* const slot = ZebThreadSlot::mine();
              while (!m_Stopped.load(std::memory_order_relaxed)) {
                  if (ZebReadGate::enter(slot))
                      ZebReadGate::leave(slot);
                  m_Entered.store(true, std::memory_order_relaxed);
              }
          })
    {
        while (!m_Entered)
            std::this_thread::yield();
    }
    ~EnteringThread()
    {
        m_Stopped = true;
        m_Thread.join();
    }
    EnteringThread(const EnteringThread&) = delete;
    EnteringThread& operator=(const EnteringThread&) = delete;

private:
    std::atomic<bool> m_Stopped{false};
    std::atomic<bool> m_Entered{false};
    std::thread m_Thread;
};

// No other thread uses the gate in these rows, so no delete lock is needed.
void closeAndOpen()
{
    ZebReadGate::close();
    ZebReadGate::open();
}

// Makes the gate plain, or fenced by closing it a second time at once.
void setForm(bool plain)
{
    std::this_thread::sleep_for(s_Calm);
    closeAndOpen();
    if (!plain)
        closeAndOpen();
}

void enterAndLeave(benchmark::State& state, bool plain)
{
    setForm(plain);
    for ([[maybe_unused]] auto _ : state) {
        ZebThreadSlot* const slot = ZebThreadSlot::mine();
        if (!ZebReadGate::enter(slot)) {
            state.SkipWithError("the gate is closed");
            break;
        }
        ZebReadGate::leave(slot);
    }
}

void closing(benchmark::State& state, bool plain)
{
    const EnteringThread entering;
    RoundTimes times;
    for ([[maybe_unused]] auto _ : state) {
        setForm(plain);
        state.SetIterationTime(times.add(closeAndOpen));
    }
    state.counters["median_us"] = times.median() * s_UsPerSecond;
}

void clock(benchmark::State& state, bool counts)
{
    ZebUseClock::setUsesCounter(counts);
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(ZebUseClock::now());
    ZebUseClock::setUsesCounter(false);
}

// In a cache line of its own.
struct alignas(64) Word
{
    std::atomic<quint64> m_Value{0};
};

void swapWord(benchmark::State& state, bool shared)
{
    static Word sharedWord;
    Word own;
    std::atomic<quint64>& word = shared ? sharedWord.m_Value : own.m_Value;
    for ([[maybe_unused]] auto _ : state) {
        quint64 value = word.load(std::memory_order_relaxed);
        while (!word.compare_exchange_weak(value, value + 1, std::memory_order_acq_rel,
                                           std::memory_order_relaxed)) {
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

} // namespace

BENCHMARK_CAPTURE(enterAndLeave, plain, true)->Name("Gate/enter_and_leave/plain");
BENCHMARK_CAPTURE(enterAndLeave, fenced, false)->Name("Gate/enter_and_leave/fenced");
BENCHMARK_CAPTURE(closing, plain, true)
    ->Name("Gate/close_and_open/plain")
    ->Iterations(15)
    ->UseManualTime();
BENCHMARK_CAPTURE(closing, fenced, false)
    ->Name("Gate/close_and_open/fenced")
    ->Iterations(15)
    ->UseManualTime();
BENCHMARK_CAPTURE(clock, cycles, false)->Name("UseClock/cycles");
BENCHMARK_CAPTURE(clock, counter, true)->Name("UseClock/counter");
BENCHMARK_CAPTURE(swapWord, own, false)
    ->Name("Gate/swap_own_word")
    ->Apply(ResidentBlocks::threadCounts);
BENCHMARK_CAPTURE(swapWord, shared, true)
    ->Name("Gate/swap_shared_word")
    ->Apply(ResidentBlocks::threadCounts);
