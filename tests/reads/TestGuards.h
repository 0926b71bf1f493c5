#pragma once

#include "support/ZebTestPoint.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// The guards by their names, for programs that run with a guard switched off.

struct TestGuard
{
    const char* m_Name;
    ZebTestGuard m_Guard;
};

#define ZEBTDX_NAMED(guard)                                                                        \
    {                                                                                              \
#guard, ZebTestGuard::guard                                                                \
    }

inline constexpr TestGuard s_TestGuards[] = {
    ZEBTDX_NAMED(GateClosedSeen),           ZEBTDX_NAMED(GateFencedSeen),
    ZEBTDX_NAMED(GateFencesOthers),         ZEBTDX_NAMED(GateWaitsForSlots),
    ZEBTDX_NAMED(OpenSeesLocked),           ZEBTDX_NAMED(CloseSeesLocked),
    ZEBTDX_NAMED(PushBeforeUnpin),          ZEBTDX_NAMED(StampOnClose),
    ZEBTDX_NAMED(ClearUsedBeforeStamp),     ZEBTDX_NAMED(EvictSeesUsed),
    ZEBTDX_NAMED(EvictSeesNotEvictable),    ZEBTDX_NAMED(EvictWaitsForCopies),
    ZEBTDX_NAMED(LastReleaseUnderRegistry), ZEBTDX_NAMED(FreeDrainsUsed),
    ZEBTDX_NAMED(CloseSeesUnpinsSlow),      ZEBTDX_NAMED(EmptyUnderClosedGate),
    ZEBTDX_NAMED(OpenNeedsResident),        ZEBTDX_NAMED(HoldNotEnding),
    ZEBTDX_NAMED(CasRepeatsStamp),          ZEBTDX_NAMED(EvictSeesDrainTime),
    ZEBTDX_NAMED(EndAwaitsUnlock),
};
#undef ZEBTDX_NAMED

static_assert(sizeof s_TestGuards / sizeof s_TestGuards[0] ==
                  static_cast<std::size_t>(ZebTestGuard::Count),
              "every guard has a name");

#ifdef ZEBTDX_TEST_POINTS

/// Switches the guard of this name off, for good. Ends the process when there is none.
inline void switchGuardOff(const char* name)
{
    for (const TestGuard& guard : s_TestGuards) {
        if (std::strcmp(guard.m_Name, name) == 0) {
            ZebTestPoints::s_GuardsOff.fetch_or(1U << static_cast<unsigned>(guard.m_Guard));
            return;
        }
    }
    std::fprintf(stderr, "no guard has the name %s\n", name);
    std::exit(2);
}

#endif
