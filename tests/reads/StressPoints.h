#pragma once

#include "reads/StressOptions.h"

#ifdef ZEBTDX_TEST_POINTS

#include "reads/TestGuards.h"
#include "support/ZebTestPoint.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <random>

#include <sched.h>
#include <time.h>

/// Lets other threads run at random moments in the middle of operations, and switches guards off.
class StressPoints
{
public:
    static void begin(const StressOptions& options)
    {
        if (!options.m_Mutant.empty())
            switchGuardOff(options.m_Mutant.c_str());
        s_Yields = options.m_Yields;
        ZebTestPoints::s_Hook.store(&StressPoints::reached, std::memory_order_release);
    }

    /// Prints which points were never reached.
    static void end()
    {
        ZebTestPoints::s_Hook.store(nullptr);
        bool isAll = true;
        for (std::size_t point = 0; point < s_IsReached.size(); ++point) {
            if (!s_IsReached[point].load())
                std::printf("never reached: point %zu\n", point);
            isAll = isAll && s_IsReached[point].load();
        }
        if (isAll)
            std::printf("all points reached\n");
    }

private:
    static void reached(ZebTestPoint point)
    {
        std::atomic<bool>& isReached = s_IsReached[static_cast<std::size_t>(point)];
        if (!isReached.load(std::memory_order_relaxed))
            isReached.store(true, std::memory_order_relaxed);
        // A trivial object, so that late thread-local destructors can use it.
        static thread_local unsigned state = 0;
        if (state == 0)
            state = s_Seeds.fetch_add(2654435769U) | 1U;
        state = state * 1664525U + 1013904223U;
        const unsigned choice = (state >> 8) % 1000U;
        if (choice < s_Yields / 10) {
            const timespec time{0, 50000};
            ::nanosleep(&time, nullptr);
        } else if (choice < s_Yields) {
            ::sched_yield();
        }
    }

    static inline unsigned s_Yields = 0;
    static inline std::atomic<unsigned> s_Seeds{1};
    static inline std::array<std::atomic<bool>, static_cast<std::size_t>(ZebTestPoint::Count)>
        s_IsReached{};
};

#else

/// A build without test points has nothing to set.
class StressPoints
{
public:
    static void begin(const StressOptions& options)
    {
        if (!options.m_Mutant.empty() || options.m_Yields != 0)
            options.endWithUsage("--mutant and --yields need a build with test points");
    }
    static void end() {}
};

#endif
