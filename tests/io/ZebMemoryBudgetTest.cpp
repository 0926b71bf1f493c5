#include "io/ZebMemoryBudget.h"

#include "support/BlockedThread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

TEST(ZebMemoryBudget, TheSharesOfAllThreadsStayWithinIt)
{
    ZebMemoryBudget budget(100);
    std::atomic<int> taken(0);
    std::atomic<int> most(0);
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&budget, &taken, &most, i] {
            for (int round = 0; round < 500; ++round) {
                const int bytes = 1 + (round * 7 + i * 31) % 100;
                const ZebMemoryBudget::Share share(budget, bytes);
                const int now = taken.fetch_add(bytes) + bytes;
                int seen = most.load();
                while (seen < now && !most.compare_exchange_weak(seen, now)) {
                }
                std::this_thread::yield();
                taken.fetch_sub(bytes);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_LE(most.load(), 100);
    EXPECT_EQ(taken.load(), 0);
}

TEST(ZebMemoryBudget, ARequestForAllOfItWaitsAndIsServed)
{
    ZebMemoryBudget budget(100);
    auto first = std::make_unique<ZebMemoryBudget::Share>(budget, 60);
    const BlockedThread all([&budget] { const ZebMemoryBudget::Share share(budget, 100); });
    EXPECT_TRUE(all.standsStill());
    first.reset();
    EXPECT_TRUE(all.ends());
}
