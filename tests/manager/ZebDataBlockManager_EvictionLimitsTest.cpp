// When the store evicts, and how much: the figures it compares and their boundaries.

#include "manager/ZebDataBlockManager.h"

#include "support/PressuredStore.h"

#include <gtest/gtest.h>

#include <cstdlib>

using StoreInside::makeRoom;

namespace {

constexpr quint64 s_NinetyPercent = 943718;

class ZebDataBlockManagerEvictionLimits : public PressuredStore
{};

// Runs in a process of its own. Returns 0 when all is well.
int lookAtFirstRequest()
{
    constexpr quint64 interval = 134217728;
    const FakeMemory memory;
    TemporaryStore::Options options;
    options.m_Roots = 0;
    TemporaryStore store(options);
    const MessageCapture& messages = store.messages();
    makeRoom(interval - 1, false);
    if (FakeMemory::measures(messages) != 1)
        return 1;
    makeRoom(0, true);
    if (FakeMemory::measures(messages) != 1)
        return 2;
    makeRoom(1, true);
    return FakeMemory::measures(messages) == 2 ? 0 : 3;
}

} // namespace

// When free memory is measured

TEST(ZebDataBlockManagerEvictionFirstRequest, AlwaysMeasuresFreeMemoryAndTheSumStartsAtZero)
{
    EXPECT_EXIT(std::exit(lookAtFirstRequest()), testing::ExitedWithCode(0), "");
}

TEST_F(ZebDataBlockManagerEvictionLimits, FreeMemoryIsMeasuredOnceFor128MegabytesRequested)
{
    EXPECT_EQ(measuresOfRequest(1), 1);
    EXPECT_EQ(measuresOfRequest(s_Interval - 1), 0);
    EXPECT_EQ(measuresOfRequest(0), 0);
    EXPECT_EQ(measuresOfRequest(1), 1);
    EXPECT_EQ(measuresOfRequest(s_Interval / 2), 0);
    EXPECT_EQ(measuresOfRequest(s_Interval / 2), 1);
}

TEST_F(ZebDataBlockManagerEvictionLimits, AdmissionsAndNewBlocksCountAsRequests)
{
    EXPECT_EQ(measuresOfRequest(1), 1);
    EXPECT_EQ(measuresOfRequest(s_Interval - 3 * s_Block), 0);
    EXPECT_EQ(measuresOf([this] { add(s_Block); }), 0);
    EXPECT_EQ(measuresOf([] { manager().createNewBlock(s_Block); }), 0);
    EXPECT_EQ(measuresOf([] { manager().createNewBlock(QByteArray(s_Block, 'x')); }), 1);
}

TEST_F(ZebDataBlockManagerEvictionLimits, ADuplicateRequestsNothing)
{
    manager().setMaxDataCacheSize(s_Terabyte);
    add(s_Block);
    EXPECT_EQ(measuresOfRequest(s_Interval - s_Block), 0);
    manager().addBlock(testBytes(s_Block, m_Seed), ZebModifyAccessor::Cached, true);
    EXPECT_EQ(measuresOfRequest(0), 0);
    EXPECT_EQ(measuresOfRequest(1), 1);
}

TEST_F(ZebDataBlockManagerEvictionLimits, TheSumOfRequestsWrapsAndIsDividedTowardZero)
{
    // The sum stands at 5 intervals less a byte.
    makeRoom(11 * s_Interval);
    // It wraps to the smallest number of 32 bits, -16 intervals.
    EXPECT_EQ(measuresOfRequest(1), 1);
    EXPECT_EQ(measuresOfRequest(1), 1) << "-16 intervals and a byte count as -15";
    EXPECT_EQ(measuresOfRequest(s_Interval - 1), 0) << "-15 intervals sharp count as -15";
    EXPECT_EQ(measuresOfRequest(1), 1);

    makeRoom(14 * s_Interval - 1);
    // -1 interval sharp; from the next byte on, two intervals count as 0.
    EXPECT_EQ(measuresOfRequest(1), 1);
    EXPECT_EQ(measuresOfRequest(s_Interval - 1), 0);
    EXPECT_EQ(measuresOfRequest(s_Interval - 1), 0);
    EXPECT_EQ(measuresOfRequest(1), 1);
}

TEST_F(ZebDataBlockManagerEvictionLimits, OnlyTheLow32BitsOfALargeRequestCount)
{
    makeRoom(1);
    makeRoom((quint64(3) << 32) + s_Interval - 2);
    EXPECT_EQ(measuresOfRequest(1), 0);
    EXPECT_EQ(measuresOfRequest(1), 1);
}

TEST_F(ZebDataBlockManagerEvictionLimits, ARequestOf128MegabytesIsMeasuredWhereverTheSumStands)
{
    makeRoom(1);
    EXPECT_EQ(measuresOfRequest(quint64(1) << 32), 1) << "leaves the sum where it is";
    // To one byte above -1 interval: the sum then moves by an interval within what counts as 0.
    makeRoom(26 * s_Interval + 1);
    EXPECT_EQ(measuresOfRequest(s_Interval - 1), 0);
    makeRoom(31 * s_Interval + 1);
    EXPECT_EQ(measuresOfRequest(s_Interval), 1);
}

TEST_F(ZebDataBlockManagerEvictionLimits, ARequestWithoutWritingIsCountedButNotMeasured)
{
    EXPECT_EQ(measuresOfRequest(1), 1);
    EXPECT_EQ(measuresOf([] { makeRoom(3 * s_Interval, false); }), 0);
    EXPECT_EQ(measuresOf([] { makeRoom(s_Interval - 1, false); }), 0);
    EXPECT_EQ(measuresOfRequest(1), 1);
}

TEST_F(ZebDataBlockManagerEvictionLimits, AfterAnEvictionTheNextRequestIsMeasured)
{
    addBlocks(1);
    EXPECT_TRUE(makeRoom(s_Limit));
    EXPECT_EQ(measuresOfRequest(0), 0) << "no byte, no crossing";
    EXPECT_EQ(measuresOfRequest(1), 1);
    EXPECT_EQ(measuresOfRequest(1), 0);
}

TEST_F(ZebDataBlockManagerEvictionLimits, ALackOfMemoryGoesUnseenUntilTheNextMeasure)
{
    manager().setMaxDataCacheSize(s_Terabyte);
    addBlocks(1);
    m_Memory.setFree(0);
    addBlocks(2);
    EXPECT_EQ(manager().liveBlocks(), 3);
    EXPECT_FALSE(makeRoom(s_Interval - 3 * s_Block));
    EXPECT_EQ(manager().liveBlocks(), 3);
    EXPECT_TRUE(makeRoom(s_Block)) << "crosses the interval, sees that nothing is free";
    EXPECT_EQ(manager().liveBlocks(), 0);
}

TEST_F(ZebDataBlockManagerEvictionLimits, APastLackOfMemoryCountsUntilTheNextMeasure)
{
    manager().setMaxDataCacheSize(s_Terabyte);
    makeRoom(1);
    m_Memory.setFree(0);
    EXPECT_FALSE(makeRoom(s_Interval));
    m_Memory.setFree(FakeMemory::s_Plenty);
    addBlocks(1);
    EXPECT_EQ(manager().liveBlocks(), 1) << "nothing could be evicted before it";
    addBlocks(1);
    EXPECT_EQ(manager().liveBlocks(), 1)
        << "the first one was evicted, so the next request measures";
    addBlocks(5);
    EXPECT_EQ(manager().liveBlocks(), 6);
}

// The boundaries

TEST_F(ZebDataBlockManagerEvictionLimits, NothingIsEvictedWhileTheTotalStaysUnderTheLimit)
{
    addBlocks(1);
    EXPECT_FALSE(makeRoom(s_Limit - s_Block - 1));
    EXPECT_EQ(manager().liveBlocks(), 1);
    EXPECT_TRUE(makeRoom(s_Limit - s_Block));
    EXPECT_EQ(manager().liveBlocks(), 0);
}

TEST_F(ZebDataBlockManagerEvictionLimits, EvictionStopsAtNinetyPercentToTheByte)
{
    addBlocks(3);
    const quint64 room = s_NinetyPercent - 2 * s_Block;
    leaveExactly(room - s_Block);
    EXPECT_FALSE(makeRoom(room - s_Block)) << "the three blocks and the request are 90 percent";
    EXPECT_EQ(manager().liveBlocks(), 3);
    leaveExactly(room - s_Block + 1);
    EXPECT_TRUE(makeRoom(room - s_Block + 1)) << "a byte above";
    EXPECT_EQ(manager().liveBlocks(), 2);
    EXPECT_TRUE(makeRoom(s_Limit - 2 * s_Block)) << "the limit itself starts it, too";
    EXPECT_EQ(manager().liveBlocks(), 0);
}

TEST_F(ZebDataBlockManagerEvictionLimits, FortyBlocksOf2AndAHalfMegabytesAreEvictedDownTo36)
{
    constexpr int size = 5 * static_cast<int>(s_Megabyte) / 2;
    manager().setMaxDataCacheSize(200 * s_Megabyte);
    for (int i = 0; i < 40; ++i)
        add(size);
    ASSERT_EQ(manager().liveBlocks(), 40);
    manager().setMaxDataCacheSize(100 * s_Megabyte);
    EXPECT_EQ(manager().liveBlocks(), 40) << "setting a limit evicts nothing";
    add(size);
    EXPECT_EQ(manager().liveBytes(), 90 * s_Megabyte);
    EXPECT_EQ(manager().liveBlocks(), 36);
}

TEST_F(ZebDataBlockManagerEvictionLimits, AFullStoreStaysAtNinetyPercentAndEvictsWithEachAdmission)
{
    constexpr int size = 10240;
    for (int i = 0; i < 102; ++i)
        add(size);
    EXPECT_EQ(manager().liveBlocks(), 102) << "99 percent";
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(measuresOf([this] { add(size); }), i == 0 ? 0 : 1);
        EXPECT_EQ(manager().liveBlocks(), 92);
    }
}

TEST_F(ZebDataBlockManagerEvictionLimits, FreeMemoryMustReachTheTargetAndTheRequest)
{
    manager().setMaxDataCacheSize(s_Terabyte);
    addBlocks(2);
    leaveExactly(100);
    EXPECT_FALSE(makeRoom(100));
    EXPECT_EQ(manager().liveBlocks(), 2);
    EXPECT_TRUE(makeRoom(101));
    EXPECT_EQ(manager().liveBlocks(), 1);
}

TEST_F(ZebDataBlockManagerEvictionLimits, TheFastCheckRequiresMoreThanTheTarget)
{
    manager().setMaxDataCacheSize(s_Terabyte);
    addBlocks(17);
    manager().setAllFreeBlocksFlushed(true);
    leaveExactly(100);
    // Only the fast check lowers the flag for a request that may not write.
    EXPECT_FALSE(makeRoom(100, false));
    EXPECT_TRUE(manager().allFreeBlocksFlushed());
    EXPECT_FALSE(makeRoom(99, false));
    EXPECT_FALSE(manager().allFreeBlocksFlushed());
}

TEST_F(ZebDataBlockManagerEvictionLimits, EvictedBytesCountAsFreeAtOnce)
{
    manager().setMaxDataCacheSize(s_Terabyte);
    addBlocks(5);
    leaveExactly(0);
    EXPECT_TRUE(makeRoom(2 * s_Block + 1));
    EXPECT_EQ(manager().liveBlocks(), 2) << "three blocks make up for the request";
}

TEST_F(ZebDataBlockManagerEvictionLimits, EvictedBytesDoNotCountAsFreeForTheNextRequest)
{
    manager().setMaxDataCacheSize(s_Terabyte);
    addBlocks(3);
    leaveExactly(0);
    // Not measured in between, as neither request may write.
    EXPECT_TRUE(makeRoom(1, false));
    EXPECT_EQ(manager().liveBlocks(), 2);
    EXPECT_TRUE(makeRoom(1, false));
    EXPECT_EQ(manager().liveBlocks(), 1);
}

TEST_F(ZebDataBlockManagerEvictionLimits, ABlockIsAdmittedOverTheTargetWhenNothingCanBeEvicted)
{
    m_Memory.setFree(0);
    addBlocks(1);
    EXPECT_EQ(manager().liveBlocks(), 1);
    const ZebDataReference& last = add(static_cast<int>(s_Limit));
    EXPECT_EQ(manager().liveBytes(), s_Limit);
    EXPECT_TRUE(holdsTestBytes(last, static_cast<int>(s_Limit), m_Seed));
    EXPECT_TRUE(holdsTestBytes(m_References.front(), s_Block, 1)) << "back from disk";
}

TEST_F(ZebDataBlockManagerEvictionLimits, CreatingANewBlockMakesRoomBeforeItIsCounted)
{
    addBlocks(2);
    {
        const ZebModifyAccessor accessor = manager().createNewBlock(s_Limit - s_Block, 7);
        EXPECT_EQ(manager().liveBlocks(), 0);
        EXPECT_EQ(manager().liveBytes(), 0);
    }
    addBlocks(1);
    const ZebModifyAccessor copy = manager().createNewBlock(QByteArray(int(s_Limit), 'x'));
    EXPECT_EQ(manager().liveBlocks(), 0);
}
