#pragma once

// Internal: the gate of the operations that take no lock. Not installed.

#include "hash/ZebThreadSlot.h"
#include "support/ZebTestPoint.h"

#include <QtGlobal>

#include <atomic>
#include <chrono>

/// The gate that operations without a lock pass, and that a thread closes when it needs a time
/// without any of them. To enter, a thread marks its slot and then looks whether the gate is open;
/// to close it, a thread shuts it and then waits until no slot is marked. So each of them writes
/// first and reads what the other has written afterwards, and between write and read both need a
/// full fence, or each could miss the other.
///
/// The gate is open in two ways, which differ in who pays for the fence of those that enter:
///
/// - open, fenced: every entry marks its slot by an exchange, which is a full fence.
/// - open, plain: an entry is two plain instructions. The closer makes the kernel run a full fence
///   on all threads of the process (membarrier), which takes microseconds.
///
/// The gate is plain except on systems without membarrier, and while it is closed again and again.
///
/// Inside, no thread waits, allocates, calls out, takes a lock or enters again.
///
/// Thread safety: any thread may call enter(), leave(), unpinsAreSlow() and setUnpinsSlow(). The
/// holder of the delete lock alone calls close(), open() and relax().
namespace ZebReadGate {

/// The bits of the gate word. Neither Closed nor Fenced: open, plain.
enum Bit : quint32
{
    Closed = 1,
    Fenced = 2,
    UnpinsSlow = 4
};

/// The gate word, for the inline functions below. Alone in its cache line: every operation reads
/// it, and a neighbour that changes would slow down all of them.
struct alignas(64) Word
{
    std::atomic<quint32> m_Bits;
};
extern Word s_Word;

/// enter() if the gate is not plain or has changed meanwhile. The slot may be marked.
bool enterFenced(ZebThreadSlot* slot);

/// Enters the gate. Returns false if it is closed; the caller then takes the delete lock instead.
/// `slot` is that of the calling thread, which is outside.
inline bool enter(ZebThreadSlot* slot)
{
    Q_ASSERT(slot->m_Inside.load(std::memory_order_relaxed) == 0);
    const quint32 before = s_Word.m_Bits.load(std::memory_order_relaxed);
    if (Q_UNLIKELY((before & (Closed | Fenced)) != 0))
        return enterFenced(slot);
    ZEBTDX_POINT(GateFoundPlain);
    // In this order for the compiler. For the processor the closer orders them: its membarrier
    // falls before the second load, which then finds the gate closed, or after the mark, which the
    // closer then sees.
    slot->m_Inside.store(1, std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    // Acquire: sees what a closer did before it opened the gate. If the gate is fenced by now, the
    // next closer makes no membarrier, and the mark above would not be strong enough.
    const quint32 after = s_Word.m_Bits.load(std::memory_order_acquire);
    if (ZEBTDX_GUARD(GateClosedSeen, Q_UNLIKELY((after & Closed) != 0)) ||
        ZEBTDX_GUARD(GateFencedSeen, Q_UNLIKELY((after & Fenced) != 0)))
        return enterFenced(slot);
    return true;
}

/// Leaves the gate.
inline void leave(ZebThreadSlot* slot)
{
    Q_ASSERT(slot->m_Inside.load(std::memory_order_relaxed) == 1);
    // Release: a closer that finds the slot unmarked sees all that was done inside.
    slot->m_Inside.store(0, std::memory_order_release);
}

/// Whether an operation that would make a block evictable must take the delete lock, since the host
/// waits for a signal about it. Called inside the gate.
inline bool unpinsAreSlow()
{
    // Relaxed: if the bit was set with the gate closed, the load in enter() has seen that already.
    return (s_Word.m_Bits.load(std::memory_order_relaxed) & UnpinsSlow) != 0;
}

/// Changes what unpinsAreSlow() returns, from now on. Does not wait for threads that are inside and
/// have read the old value; to exclude them, call it with the gate closed.
void setUnpinsSlow(bool slow);

/// Closes the gate and waits until no thread is inside. What those threads did is visible then. The
/// calling thread holds the delete lock and is outside; the gate is open.
void close();

/// Opens the gate. What the calling thread did is visible to every thread that enters. The calling
/// thread has closed it.
void open();

/// Makes an open gate plain if its last closing is some time ago, and does nothing otherwise. For
/// operations that take the delete lock now and then: after many closings in a row the gate is
/// fenced, and without this it would stay so until the next one. A thread that closes accessors
/// does it after many entries, which its slot counts.
void relax();

/// For tests: after which time without a closing the gate is plain, in place of 10 ms. The calling
/// thread holds the delete lock.
void setCalmTime(std::chrono::microseconds time);

} // namespace ZebReadGate
