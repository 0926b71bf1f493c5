#pragma once

// Internal: the moments and the checks of lock-free reads that tests control. Not installed.
//
// A build without ZEBTDX_TEST_POINTS has neither: ZEBTDX_POINT is nothing, and ZEBTDX_GUARD is its
// condition. The library itself is always built so. Only tests/reads and tests/litmus define the
// macro, for second copies of the sources that use it.

/// A moment at which a test may stop or delay the thread that reaches it.
enum class ZebTestPoint : unsigned
{
    GateFoundPlain,
    OpenEntered,
    OpenPinned,
    CloseEntered,
    UsedSet,
    UsedPushed,
    StampWritten,
    Unpinned,
    DrainTaken,
    DrainRead,
    DrainCleared,
    EvictChosen,
    EvictLocked,
    GateClosed,
    Dismissed,
    LastReleaseDecided,
    CopyBegun,
    SlowOpen,
    SlowClose,
    Count
};

/// A check that lock-free reads need. A test switches it off and expects to notice.
enum class ZebTestGuard : unsigned
{
    GateClosedSeen,
    GateFencedSeen,
    GateFencesOthers,
    GateWaitsForSlots,
    OpenSeesLocked,
    CloseSeesLocked,
    PushBeforeUnpin,
    StampOnClose,
    ClearUsedBeforeStamp,
    EvictSeesUsed,
    EvictSeesNotEvictable,
    EvictWaitsForCopies,
    LastReleaseUnderRegistry,
    FreeDrainsUsed,
    CloseSeesUnpinsSlow,
    EmptyUnderClosedGate,
    OpenNeedsResident,
    HoldNotEnding,
    CasRepeatsStamp,
    EvictSeesDrainTime,
    EndAwaitsUnlock,
    Count
};

#ifdef ZEBTDX_TEST_POINTS

#include <atomic>

/// What the tests set. Thread safety: any thread may call every function.
namespace ZebTestPoints {

/// Runs on the thread that has reached the point, possibly inside the gate of the reads or with
/// locks held, so it must neither allocate from the store nor wait for a thread that needs them.
using Hook = void (*)(ZebTestPoint point);

inline std::atomic<Hook> s_Hook{nullptr};

/// One bit for each ZebTestGuard.
inline std::atomic<unsigned> s_GuardsOff{0};

inline void reached(ZebTestPoint point)
{
    // Acquire: the thread that set the hook has written before what the hook reads.
    if (const Hook hook = s_Hook.load(std::memory_order_acquire))
        hook(point);
}

inline bool isOff(ZebTestGuard guard)
{
    return (s_GuardsOff.load(std::memory_order_relaxed) >> static_cast<unsigned>(guard) & 1U) != 0;
}

} // namespace ZebTestPoints

#define ZEBTDX_POINT(name) ZebTestPoints::reached(ZebTestPoint::name)
/// The condition while the guard is on, otherwise false without evaluating it. So write it such
/// that true is the careful answer: `if (ZEBTDX_GUARD(OpenSeesLocked, word & locked)) return slow`.
#define ZEBTDX_GUARD(name, condition)                                                              \
    (!ZebTestPoints::isOff(ZebTestGuard::name) && static_cast<bool>(condition))

#else

#define ZEBTDX_POINT(name) static_cast<void>(0)
#define ZEBTDX_GUARD(name, condition) (static_cast<bool>(condition))

#endif
