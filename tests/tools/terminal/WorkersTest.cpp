#include "tools/terminal/Workers.h"

#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>

TEST(Workers, WorkRunsOnThatManyThreadsAtOnce)
{
    constexpr int threads = 5;
    std::atomic<int> inside(0);
    std::atomic<bool> allMet(true);
    std::mutex mutex;
    std::set<std::thread::id> ids;
    Workers::run(
        threads,
        [&] {
            {
                const std::lock_guard<std::mutex> locker(mutex);
                ids.insert(std::this_thread::get_id());
            }
            inside.fetch_add(1);
            // Each waits for all the others, which are there at the same time or never.
            if (!waitUntil([&inside] { return inside.load() == threads; }))
                allMet = false;
        },
        [] {});
    EXPECT_TRUE(allMet);
    EXPECT_EQ(ids.size(), 5U);
    EXPECT_EQ(ids.count(std::this_thread::get_id()), 0U);
}

TEST(Workers, TicksOnTheCallingThreadDuringTheWorkAndAtItsEnd)
{
    std::atomic<int> ticks(0);
    bool elsewhere = false;
    const std::thread::id caller = std::this_thread::get_id();
    std::atomic<bool> sawTick(false);
    std::atomic<int> ticksAtEnd(0);
    Workers::run(
        1,
        [&] {
            sawTick = waitUntil([&ticks] { return ticks.load() > 0; });
            ticksAtEnd = ticks.load();
        },
        [&] {
            elsewhere = elsewhere || std::this_thread::get_id() != caller;
            ticks.fetch_add(1);
        });
    EXPECT_TRUE(sawTick);
    EXPECT_FALSE(elsewhere);
    EXPECT_GT(ticks.load(), ticksAtEnd.load());
}

TEST(Workers, AnExceptionReachesTheCallerAfterAllHaveEnded)
{
    std::atomic<int> order(0);
    std::atomic<int> ended(0);
    const auto run = [&] {
        Workers::run(
            4,
            [&] {
                if (order.fetch_add(1) == 0)
                    throw std::runtime_error("the first");
                ended.fetch_add(1);
            },
            [] {});
    };
    EXPECT_THROW(run(), std::runtime_error);
    EXPECT_EQ(ended.load(), 3);
}
