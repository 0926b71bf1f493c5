#include "tools/MemoryGate.h"

#include "data/ZebDataReference.h"
#include "manager/ZebDataBlockManager.h"

#include "StoreFixture.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

using MemoryGateTest = StoreFixture;

TEST_F(MemoryGateTest, LetsInWhatFitsToTheLastByte)
{
    MemoryGate gate(100);
    EXPECT_TRUE(gate.enter(60));
    EXPECT_TRUE(gate.enter(40));
    EXPECT_FALSE(gate.isClosed());
}

TEST_F(MemoryGateTest, CountsWhatIsInTheStore)
{
    const ZebDataReference held = ZebDataBlockManager::instance().addBlock(
        QByteArray(60, 'x'), ZebModifyAccessor::Cached, true);
    ASSERT_EQ(ZebDataBlockManager::instance().liveBytes(), 60);
    MemoryGate gate(100);
    EXPECT_TRUE(gate.enter(40));
    gate.leave(40);
    EXPECT_FALSE(gate.enter(41));
    EXPECT_TRUE(gate.isClosed());
}

TEST_F(MemoryGateTest, StaysClosed)
{
    MemoryGate gate(100);
    EXPECT_FALSE(gate.enter(101));
    EXPECT_TRUE(gate.isClosed());
    EXPECT_FALSE(gate.enter(1));
}

TEST_F(MemoryGateTest, WaitsForBlocksOnTheirWayBeforeItTurnsOneAway)
{
    MemoryGate gate(100);
    ASSERT_TRUE(gate.enter(60));
    std::atomic<int> answer(-1);
    std::thread second([&] { answer = gate.enter(60) ? 1 : 0; });
    // The first one turns out to be a duplicate, which leaves the room free.
    gate.leave(60);
    EXPECT_TRUE(waitUntil([&answer] { return answer.load() != -1; }));
    second.join();
    EXPECT_EQ(answer.load(), 1);
    EXPECT_FALSE(gate.isClosed());
}

TEST_F(MemoryGateTest, ClosingWakesAllThatWait)
{
    MemoryGate gate(100);
    ASSERT_TRUE(gate.enter(100));
    std::atomic<int> turnedAway(0);
    std::vector<std::thread> waiting;
    for (int i = 0; i < 3; ++i) {
        waiting.emplace_back([&] {
            if (!gate.enter(200))
                turnedAway.fetch_add(1);
        });
    }
    gate.leave(100);
    EXPECT_TRUE(waitUntil([&turnedAway] { return turnedAway.load() == 3; }));
    for (std::thread& thread : waiting)
        thread.join();
    EXPECT_TRUE(gate.isClosed());
}
