#pragma once

// Internal: the time of the last use of a block. Not installed.

#include <QtGlobal>

#include <atomic>

#if defined(__x86_64__) && defined(Q_CC_GNU)
#define ZEBTDX_HAS_CYCLES
#include <x86intrin.h>
#endif

/// Stamps for the order of the least recently used blocks. If a use ends before another one begins,
/// on whatever threads, its stamp is the smaller one. The unit is arbitrary.
///
/// The clock reads the cycle counter of the processor where the kernel itself uses it as its clock,
/// since it then counts alike on all cores. Otherwise it counts the uses, in a word that all
/// threads share.
///
/// Thread safety: any thread may call every function.
namespace ZebUseClock {

enum class Form : int
{
    Undecided,
    /// The cycle counter, read after a fence that waits for all earlier instructions.
    Cycles,
    /// The cycle counter, read by the instruction that waits itself: slower, for processors that do
    /// not promise such a fence.
    WaitingCycles,
    Counter
};

/// For now(). Relaxed: all threads come to the same decision, and each form continues the other.
extern std::atomic<Form> s_Form;

/// What the cycle counter is ahead by. Changes only when the processor's counter has gone back.
extern std::atomic<quint64> s_Base;

/// now() in all forms.
quint64 nowSlowly();

/// A stamp greater than those of all uses that have ended before; never 0. Read after all earlier
/// loads of the calling thread, and before any later store is visible to others.
inline quint64 now()
{
#ifdef ZEBTDX_HAS_CYCLES
    if (Q_LIKELY(s_Form.load(std::memory_order_relaxed) == Form::Cycles)) {
        // The fence waits for all earlier loads. What follows in program order stores the stamp, so
        // it waits for the counter.
        _mm_lfence();
        return __rdtsc() + s_Base.load(std::memory_order_relaxed);
    }
#endif
    return nowSlowly();
}

/// Makes every later stamp greater than `stamp`. Does nothing if that is so, as it is unless the
/// machine has slept or the process was moved to another one. Not to be called by two threads at a
/// time.
void keepAfter(quint64 stamp);

/// For tests: whether the clock counts uses although it could read cycles. Stamps continue.
void setUsesCounter(bool usesCounter);

} // namespace ZebUseClock
