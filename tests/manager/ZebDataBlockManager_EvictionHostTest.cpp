// The host's flag that nothing is evictable, and the two functions by which a host evicts blocks.

#include "manager/ZebDataBlockManager.h"

#include "support/DeleteLockProbe.h"
#include "support/PressuredStore.h"
#include "support/StoreInside.h"

#include <QMetaProperty>
#include <QObject>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <vector>

using StoreInside::makeRoom;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr quint64 s_FlushBytes = 536870912;

// The values of the flag's signal, in order.
class FlagSignals
{
public:
    FlagSignals()
    {
        QObject::connect(
            &StoreInside::manager(), &ZebDataBlockManager::allFreeBlocksFlushedChanged, &m_Receiver,
            [this](bool flushed) { m_Values.push_back(flushed); }, Qt::DirectConnection);
    }

    const std::vector<bool>& values() const { return m_Values; }

private:
    QObject m_Receiver;
    std::vector<bool> m_Values;
};

class ZebDataBlockManagerEvictionHost : public PressuredStore
{};

} // namespace

// The host's flag

TEST_F(ZebDataBlockManagerEvictionHost, EvictingTheLastEvictableBlockSetsTheFlagWithOneSignal)
{
    const FlagSignals flag;
    addBlocks(20);
    EXPECT_TRUE(manager().flushMemory(true));
    EXPECT_EQ(manager().liveBlocks(), 0);
    EXPECT_TRUE(manager().allFreeBlocksFlushed());
    EXPECT_THAT(flag.values(), ElementsAre(true));
}

TEST_F(ZebDataBlockManagerEvictionHost, TheFlagIsAReadOnlyPropertyWithoutANotifier)
{
    const QMetaObject* const type = manager().metaObject();
    const QMetaProperty property = type->property(type->indexOfProperty("allFreeBlocksFlushed"));
    EXPECT_FALSE(property.isWritable());
    EXPECT_FALSE(property.hasNotifySignal());
    raiseFlag();
    EXPECT_TRUE(property.read(&manager()).toBool());
}

TEST_F(ZebDataBlockManagerEvictionHost, PinnedAndUncachedBlocksDoNotKeepTheFlagDown)
{
    addBlocks(2);
    const ZebConstAccessor accessor = m_References.front().constAccessor();
    const ZebDataReference kept =
        manager().addBlock(QByteArray("kept"), ZebModifyAccessor::DontCache);
    EXPECT_TRUE(manager().flushMemory(true));
    EXPECT_TRUE(manager().allFreeBlocksFlushed());
    EXPECT_EQ(manager().liveBytes(), s_Block + 4);
}

TEST_F(ZebDataBlockManagerEvictionHost, AnEvictionThatLeavesABlockDoesNotSetTheFlag)
{
    const FlagSignals flag;
    addBlocks(2);
    leaveExactly(0);
    EXPECT_TRUE(makeRoom(1));
    EXPECT_EQ(manager().liveBlocks(), 1);
    EXPECT_THAT(flag.values(), IsEmpty());
}

TEST_F(ZebDataBlockManagerEvictionHost, FlushingAnEmptyStoreDoesNotSetTheFlag)
{
    const FlagSignals flag;
    EXPECT_FALSE(manager().flushMemory(true));
    EXPECT_FALSE(manager().allFreeBlocksFlushed());
    EXPECT_THAT(flag.values(), IsEmpty());
}

TEST_F(ZebDataBlockManagerEvictionHost, EmptyingTheStoreAgainEmitsNoSecondSignal)
{
    raiseFlag();
    const FlagSignals flag;
    addBlocks(3);
    EXPECT_TRUE(manager().flushMemory(true));
    EXPECT_TRUE(manager().allFreeBlocksFlushed());
    EXPECT_THAT(flag.values(), IsEmpty());
}

TEST_F(ZebDataBlockManagerEvictionHost, TheFlagStaysWith16BlocksAndFallsAt17)
{
    raiseFlag();
    const FlagSignals flag;
    addBlocks(16);
    EXPECT_FALSE(makeRoom(1));
    EXPECT_TRUE(manager().allFreeBlocksFlushed());
    addBlocks(1);
    EXPECT_TRUE(manager().allFreeBlocksFlushed()) << "the check came before the block";
    EXPECT_FALSE(makeRoom(1));
    EXPECT_FALSE(manager().allFreeBlocksFlushed());
    EXPECT_THAT(flag.values(), ElementsAre(false));
}

TEST_F(ZebDataBlockManagerEvictionHost, TheFlagFallsAt17AlsoInTheFastCheck)
{
    raiseFlag();
    manager().setMaxDataCacheSize(s_Terabyte);
    const FlagSignals flag;
    addBlocks(16);
    EXPECT_FALSE(makeRoom(s_Interval));
    EXPECT_TRUE(manager().allFreeBlocksFlushed());
    addBlocks(1);
    EXPECT_FALSE(makeRoom(s_Interval, false));
    EXPECT_TRUE(manager().allFreeBlocksFlushed()) << "not a matter of requests that cannot write";
    EXPECT_FALSE(makeRoom(s_Interval));
    EXPECT_THAT(flag.values(), ElementsAre(false));
}

TEST_F(ZebDataBlockManagerEvictionHost, AnEvictionLeavesTheFlagUpHoweverMuchIsLeft)
{
    addBlocks(40);
    manager().setAllFreeBlocksFlushed(true);
    leaveExactly(0);
    const FlagSignals flag;
    EXPECT_TRUE(makeRoom(1));
    EXPECT_EQ(manager().liveBlocks(), 39);
    EXPECT_TRUE(manager().allFreeBlocksFlushed());
    EXPECT_THAT(flag.values(), IsEmpty());
}

TEST_F(ZebDataBlockManagerEvictionHost, TheFlagFallsAsSoonAsAnAccessorCloses)
{
    addBlocks(1);
    std::optional<const ZebConstAccessor> accessor(m_References.front().constAccessor());
    raiseFlag();
    const FlagSignals flag;
    EXPECT_THAT(flag.values(), IsEmpty());
    accessor.reset();
    EXPECT_FALSE(manager().allFreeBlocksFlushed());
    EXPECT_THAT(flag.values(), ElementsAre(false));
}

TEST_F(ZebDataBlockManagerEvictionHost, ReadingAnUncachedBlockLeavesTheFlagUp)
{
    const ZebDataReference kept =
        manager().addBlock(QByteArray("kept"), ZebModifyAccessor::DontCache);
    raiseFlag();
    EXPECT_FALSE(kept.constAccessor().isNull());
    EXPECT_TRUE(manager().allFreeBlocksFlushed());
}

TEST_F(ZebDataBlockManagerEvictionHost, CleaningUpLowersTheFlag)
{
    raiseFlag();
    const FlagSignals flag;
    m_Store.cleanUp();
    EXPECT_FALSE(manager().allFreeBlocksFlushed());
    EXPECT_THAT(flag.values(), ElementsAre(false));
}

TEST_F(ZebDataBlockManagerEvictionHost, CleaningUpWithTheFlagDownEmitsNothing)
{
    const FlagSignals flag;
    m_Store.cleanUp();
    EXPECT_THAT(flag.values(), IsEmpty());
}

TEST_F(ZebDataBlockManagerEvictionHost, TheHostMaySetTheFlagAndOnlyChangesAreSignalled)
{
    const FlagSignals flag;
    manager().setAllFreeBlocksFlushed(false);
    EXPECT_THAT(flag.values(), IsEmpty());
    manager().setAllFreeBlocksFlushed(true);
    manager().setAllFreeBlocksFlushed(true);
    manager().setAllFreeBlocksFlushed(false);
    EXPECT_THAT(flag.values(), ElementsAre(true, false));
}

TEST_F(ZebDataBlockManagerEvictionHost, TheStoreSignalsUnderTheDeleteLockAndTheHostDoesNot)
{
    std::vector<bool> couldLock;
    const QObject receiver;
    QObject::connect(
        &manager(), &ZebDataBlockManager::allFreeBlocksFlushedChanged, &receiver,
        [&couldLock] { couldLock.push_back(deleteLockIsFree()); }, Qt::DirectConnection);
    addBlocks(1);
    EXPECT_TRUE(manager().flushMemory(true));
    EXPECT_TRUE(holdsTestBytes(m_References.front(), s_Block, 1));
    EXPECT_THAT(couldLock, ElementsAre(false, false)) << "an eviction, and a closed accessor";
    manager().setAllFreeBlocksFlushed(true);
    m_Store.cleanUp();
    EXPECT_THAT(couldLock, ElementsAre(false, false, true, true));
}

TEST_F(ZebDataBlockManagerEvictionHost, AnAdmissionLowersTheFlagUnderTheDeleteLockInBothChecks)
{
    addBlocks(17);
    std::vector<bool> couldLock;
    const QObject receiver;
    manager().setAllFreeBlocksFlushed(true);
    QObject::connect(
        &manager(), &ZebDataBlockManager::allFreeBlocksFlushedChanged, &receiver,
        [&couldLock](bool flushed) {
            if (!flushed)
                couldLock.push_back(deleteLockIsFree());
        },
        Qt::DirectConnection);
    // Plenty is free: the fast check suffices.
    EXPECT_FALSE(makeRoom(1));
    EXPECT_THAT(couldLock, ElementsAre(false));
    manager().setAllFreeBlocksFlushed(true);
    // Just enough is free: the fast check refuses, and still nothing has to be evicted.
    leaveExactly(1);
    EXPECT_FALSE(makeRoom(1));
    EXPECT_THAT(couldLock, ElementsAre(false, false));
}

// flushMemory

TEST_F(ZebDataBlockManagerEvictionHost, FlushMemoryEvictsUntil512MegabytesFitUnderNinetyPercent)
{
    addBlocks(20);
    // 90 percent of this limit are 512 MiB and 7500 bytes, with a fraction.
    manager().setMaxDataCacheSize(596531569);
    EXPECT_TRUE(manager().flushMemory(false));
    EXPECT_EQ(manager().liveBlocks(), 7);
    EXPECT_FALSE(manager().allFreeBlocksFlushed());
    EXPECT_FALSE(manager().flushMemory(false));
}

TEST_F(ZebDataBlockManagerEvictionHost, FlushMemoryEvictsUntil512MegabytesFitUnderTheFreeTarget)
{
    manager().setMaxDataCacheSize(s_Terabyte);
    addBlocks(20);
    leaveExactly(s_FlushBytes - 4 * s_Block);
    EXPECT_TRUE(manager().flushMemory(false));
    EXPECT_EQ(manager().liveBlocks(), 16);
}

TEST_F(ZebDataBlockManagerEvictionHost, FlushMemoryMeasures)
{
    makeRoom(1);
    EXPECT_EQ(measuresOf([] { manager().flushMemory(false); }), 1);
    EXPECT_EQ(measuresOf([] { manager().flushMemory(true); }), 1);
}

TEST_F(ZebDataBlockManagerEvictionHost, OnlyAForcedFlushMakesTheNextRequestMeasure)
{
    manager().setMaxDataCacheSize(s_Terabyte);
    makeRoom(1);
    EXPECT_FALSE(manager().flushMemory(false));
    EXPECT_EQ(measuresOfRequest(1), 0);
    EXPECT_FALSE(manager().flushMemory(true));
    EXPECT_EQ(measuresOfRequest(1), 1);
}

// helpMeOut

TEST_F(ZebDataBlockManagerEvictionHost, HelpMeOutDropsEveryEvictableBlock)
{
    addBlocks(20);
    const ZebConstAccessor accessor = m_References.front().constAccessor();
    const ZebDataReference kept =
        manager().addBlock(QByteArray("kept"), ZebModifyAccessor::DontCache);
    manager().setMaxDataCacheSize(s_Terabyte);
    EXPECT_FALSE(manager().flushMemory(true)) << "there is room for much more";
    EXPECT_TRUE(manager().helpMeOut());
    EXPECT_EQ(manager().liveBlocks(), 0);
    EXPECT_EQ(manager().liveBytes(), s_Block + 4);
    EXPECT_FALSE(manager().helpMeOut()) << "nothing is left to evict";
    EXPECT_TRUE(holdsTestBytes(m_References.at(7), s_Block, 8));
}

TEST_F(ZebDataBlockManagerEvictionHost, HelpMeOutLeavesTheFlagAsItIs)
{
    const FlagSignals flag;
    addBlocks(20);
    EXPECT_TRUE(manager().helpMeOut());
    EXPECT_FALSE(manager().allFreeBlocksFlushed());
    addBlocks(20);
    manager().setAllFreeBlocksFlushed(true);
    EXPECT_TRUE(manager().helpMeOut());
    EXPECT_TRUE(manager().allFreeBlocksFlushed());
    EXPECT_THAT(flag.values(), ElementsAre(true)) << "the host's own";
}

TEST_F(ZebDataBlockManagerEvictionHost, HelpMeOutMeasuresNothingButMakesTheNextRequestMeasure)
{
    addBlocks(2);
    EXPECT_EQ(measuresOf([] { EXPECT_TRUE(manager().helpMeOut()); }), 0);
    EXPECT_EQ(measuresOfRequest(1), 1);
}

TEST_F(ZebDataBlockManagerEvictionHost, HelpMeOutWritesNothing)
{
    addBlocks(1);
    ASSERT_TRUE(StoreInside::forgetFile(m_References.front()));
    const int handled = StoreInside::writesHandled();
    EXPECT_TRUE(manager().helpMeOut());
    manager().flush(true, ZebDataBlockManager::AllThreads);
    EXPECT_EQ(StoreInside::writesHandled(), handled);
    EXPECT_FALSE(StoreInside::hasFile(m_References.front()));
}

TEST_F(ZebDataBlockManagerEvictionHost, HelpMeOutEvictsNothingOnAMachineWithATerabyteFree)
{
    addBlocks(3);
    manager().setMaxDataCacheSize(8 * s_Terabyte);
    m_Memory.setFree(4 * s_Terabyte);
    EXPECT_FALSE(makeRoom(s_Interval));
    EXPECT_FALSE(manager().helpMeOut());
    EXPECT_EQ(manager().liveBlocks(), 3);
}
