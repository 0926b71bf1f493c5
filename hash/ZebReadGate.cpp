#include "hash/ZebReadGate.h"

#include <thread>

#ifdef Q_OS_LINUX
#include <cerrno>

#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>
#endif

// Constant-initialised, so that static objects of a host may use the store. Fenced until the first
// close(), since plain needs a registration.
ZebReadGate::Word ZebReadGate::s_Word{{ZebReadGate::Fenced}};

namespace {

using Clock = std::chrono::steady_clock;

// A closing of a plain gate costs its membarrier, some 10 microseconds, on every core; an entry
// into a fenced gate costs some nanoseconds more. Closings at this distance cost 0.1 %.
constexpr std::chrono::milliseconds s_DefaultCalmTime{10};

// How a closer waits for a thread that is inside: for some 10 instructions of that thread, or until
// the scheduler runs it again.
constexpr int s_SpinCount = 200;
constexpr int s_YieldCount = 100;
constexpr std::chrono::microseconds s_Sleep{50};

// Far longer than any processor keeps a store from the others.
constexpr std::chrono::milliseconds s_StoreTime{10};

// The delete lock guards these.
std::chrono::microseconds s_CalmTime{s_DefaultCalmTime};
Clock::time_point s_LastClosing;
bool s_HasClosed = false;
bool s_IsCalm = true;

enum class Barrier
{
    Unknown,
    Registered,
    Refused
};
Barrier s_Barrier = Barrier::Unknown;

#ifdef Q_OS_LINUX

bool membarrier(int command)
{
    return ::syscall(__NR_membarrier, command, 0, 0) == 0;
}

bool registerBarrier()
{
    return membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED);
}

// Runs a full fence on every running thread of the process. Returns whether it did.
bool runBarrier()
{
    while (!membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED)) {
        // No memory at the moment, or no registration in this process: it may be a forked child.
        const bool isTransient = errno == ENOMEM || errno == EAGAIN || errno == EINTR;
        if (!isTransient && !(errno == EPERM && registerBarrier()))
            return false;
        std::this_thread::yield();
    }
    return true;
}

#else

bool registerBarrier()
{
    return false;
}

bool runBarrier()
{
    return false;
}

#endif

bool isPlainPossible()
{
    if (s_Barrier == Barrier::Unknown)
        s_Barrier = registerBarrier() ? Barrier::Registered : Barrier::Refused;
    return s_Barrier == Barrier::Registered;
}

// The fence for those who entered a plain gate.
void fenceOthers()
{
    if (runBarrier())
        return;
    // The kernel has granted the registration and now refuses the barrier: the host has restricted
    // its system calls meanwhile. What can still be waited for is that their stores arrive.
    s_Barrier = Barrier::Refused;
    std::this_thread::sleep_for(s_StoreTime);
}

void waitUntilOutside(const ZebThreadSlot& slot)
{
    // Includes acquire: sees what the thread did inside.
    const std::atomic<quint32>& inside = slot.m_Inside;
    for (int turn = 0; ZEBTDX_GUARD(GateWaitsForSlots, inside.load(std::memory_order_seq_cst) != 0);
         ++turn) {
        if (turn < s_SpinCount)
            continue;
        if (turn < s_SpinCount + s_YieldCount)
            std::this_thread::yield();
        else
            std::this_thread::sleep_for(s_Sleep);
    }
}

} // namespace

bool ZebReadGate::enterFenced(ZebThreadSlot* slot)
{
    ++slot->m_FencedEntries;
    // A fenced mark is strong enough for both ways in which the gate may be open, so this needs no
    // second turn. All five accesses are in the single order of seq_cst: mark and load here,
    // closing and look at the mark in close(), and open().
    slot->m_Inside.exchange(1, std::memory_order_seq_cst);
    const quint32 after = s_Word.m_Bits.load(std::memory_order_seq_cst);
    if (ZEBTDX_GUARD(GateClosedSeen, (after & Closed) != 0)) {
        slot->m_Inside.store(0, std::memory_order_release);
        return false;
    }
    return true;
}

void ZebReadGate::setUnpinsSlow(bool slow)
{
    // Changes one bit of the word, so that it may meet a closing or an opening in any order.
    if (slow)
        s_Word.m_Bits.fetch_or(UnpinsSlow, std::memory_order_seq_cst);
    else
        s_Word.m_Bits.fetch_and(~quint32(UnpinsSlow), std::memory_order_seq_cst);
}

void ZebReadGate::close()
{
    const Clock::time_point now = Clock::now();
    s_IsCalm = !s_HasClosed || now - s_LastClosing > s_CalmTime;
    s_LastClosing = now;
    s_HasClosed = true;
    const quint32 before = s_Word.m_Bits.fetch_or(Closed, std::memory_order_seq_cst);
    Q_ASSERT((before & Closed) == 0);
    if (ZEBTDX_GUARD(GateFencesOthers, (before & Fenced) == 0))
        fenceOthers();
    // The own slot, too: it is unmarked, or the caller would wait for itself.
    for (const ZebThreadSlot* slot = ZebThreadSlot::first(); slot != nullptr; slot = slot->next())
        waitUntilOutside(*slot);
    ZEBTDX_POINT(GateClosed);
}

void ZebReadGate::relax()
{
    const quint32 bits = s_Word.m_Bits.load(std::memory_order_relaxed);
    if ((bits & (Closed | Fenced)) != Fenced)
        return;
    if ((s_HasClosed && Clock::now() - s_LastClosing <= s_CalmTime) || !isPlainPossible())
        return;
    // Safe with threads inside and on their way: they have marked their slots by exchanges, which
    // are enough for a closer that makes a membarrier, too. The other direction would not be.
    s_Word.m_Bits.fetch_and(~quint32(Fenced), std::memory_order_seq_cst);
}

void ZebReadGate::open()
{
    Q_ASSERT((s_Word.m_Bits.load(std::memory_order_relaxed) & Closed) != 0);
    // No thread is inside. A thread that has marked its slot for a plain gate and loads the word
    // only now finds it fenced and marks again; so the gate may become fenced here, and only here.
    if (s_IsCalm && isPlainPossible())
        s_Word.m_Bits.fetch_and(~quint32(Fenced), std::memory_order_seq_cst);
    else
        s_Word.m_Bits.fetch_or(Fenced, std::memory_order_seq_cst);
    s_Word.m_Bits.fetch_and(~quint32(Closed), std::memory_order_seq_cst);
}

void ZebReadGate::setCalmTime(std::chrono::microseconds time)
{
    s_CalmTime = time;
}
