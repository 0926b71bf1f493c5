// What the store reports about queued writes, and how a host is slowed down to its disks.

#include "manager/ZebDataBlockManager.h"

#include "support/BlockedThread.h"
#include "support/HeldWriter.h"
#include "support/Manager.h"
#include "support/RecordedSleeps.h"
#include "support/SequencePoints.h"
#include "support/StoreFixture.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"
#include "support/WaitUntil.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const QString s_BrakeLine = QStringLiteral(
    "ZebDataBlockManager::processIO: Excessive data in the queue: 1048576 bytes (max = 1048576): "
    "sleeping calling thread...");

class ZebDataBlockManagerWriteQueue : public StoreFixture
{
protected:
    ZebDataBlockManagerWriteQueue() : StoreFixture(withOneBucket()) {}
};

} // namespace

// isBlockBeingWritten

TEST_F(ZebDataBlockManagerWriteQueue, ABlockIsBeingWrittenFromItsAdmissionUntilItsWriterIsDone)
{
    HeldWriter held;
    const ZebDataReference reference = add(s_Block, 1);
    EXPECT_TRUE(manager().isBlockBeingWritten(reference));
    EXPECT_TRUE(manager().isBlockBeingWritten(held.reference())) << "in hand counts, too";
    held.release();
    manager().flush(false, ZebDataBlockManager::WriteThreads);
    EXPECT_FALSE(manager().isBlockBeingWritten(reference));
    EXPECT_FALSE(manager().isBlockBeingWritten(held.reference()));
}

TEST_F(ZebDataBlockManagerWriteQueue, AskingAboutAPendingReferenceWaitsForItsJob)
{
    const HeldWriter held;
    const ZebDataReference reference = manager().addBlock(testBytes(s_Block, 1));
    EXPECT_TRUE(reference.hasHashJob());
    EXPECT_TRUE(manager().isBlockBeingWritten(reference));
    EXPECT_FALSE(reference.hasHashJob());
}

TEST_F(ZebDataBlockManagerWriteQueue, AnEvictedBlockIsNotBeingWrittenEvenIfQueued)
{
    const HeldWriter held;
    const ZebDataReference reference = add(s_Block, 1);
    ZebDataBlock* const block = StoreInside::blockOf(reference);
    EXPECT_TRUE(manager().flushMemory(true));
    EXPECT_TRUE(StoreInside::beingWritten().contains(block));
    EXPECT_FALSE(manager().isBlockBeingWritten(reference));
}

TEST_F(ZebDataBlockManagerWriteQueue, NullReferencesAndUncachedBlocksAreNotBeingWritten)
{
    EXPECT_FALSE(manager().isBlockBeingWritten(ZebDataReference()));
    const ZebDataReference kept =
        manager().addBlock(testBytes(s_Block, 1), ZebModifyAccessor::DontCache);
    EXPECT_FALSE(manager().isBlockBeingWritten(kept));
}

// Queries about writers

TEST_F(ZebDataBlockManagerWriteQueue, WritersAreFullWhenTheirQueuesReachTheLimitOfPendingBytes)
{
    manager().setMaxWritePendingSizeFactor(0.0F);
    HeldWriter held;
    const ZebDataReference large = add(s_Megabyte - 1, 1);
    EXPECT_FALSE(manager().isWriteThreadsFull());
    const ZebDataReference small = add(1, 2);
    EXPECT_TRUE(manager().isWriteThreadsFull());
    held.release();
    manager().flush(false, ZebDataBlockManager::WriteThreads);
    EXPECT_FALSE(manager().isWriteThreadsFull());
}

TEST_F(ZebDataBlockManagerWriteQueue, TheQueriesWorkWithoutAStore)
{
    const ZebDataReference reference = add(s_Block, 1);
    m_Store.cleanUp();
    EXPECT_EQ(manager().getWriteThreadCount(), 0);
    EXPECT_FALSE(manager().isWriteThreadsFull());
    EXPECT_FALSE(manager().isBlockBeingWritten(reference));
    manager().processIO();
}

// The host's brake

TEST_F(ZebDataBlockManagerWriteQueue, TheBrakeReturnsAtOnceBelowTheLimitOfPendingBytes)
{
    manager().setMaxWritePendingSizeFactor(0.0F);
    const HeldWriter held;
    add(s_Megabyte - 1, 1);
    m_Store.messages().clear();
    manager().processIO();
    EXPECT_FALSE(manager().isWriteThreadsFull());
    EXPECT_THAT(m_Store.messages().debugLines(), IsEmpty());
}

TEST_F(ZebDataBlockManagerWriteQueue, TheBrakeHoldsFromTheLimitOnUntilTheWritersHaveCaughtUp)
{
    manager().setMaxWritePendingSizeFactor(0.0F);
    HeldWriter held;
    add(s_Megabyte - 1, 1);
    add(1, 2);
    EXPECT_TRUE(manager().isWriteThreadsFull());
    SequencePoints points;
    // The brake takes no lock of the manager, or it would not get to its sleep.
    StoreInside::deleteLock().lock();
    BlockedThread brake([&points] {
        const RecordedSleeps sleeps([&points] { points.reachedThenWait("braking", "caught up"); });
        manager().processIO();
    });
    EXPECT_TRUE(points.wait("braking"));
    StoreInside::deleteLock().unlock();
    EXPECT_TRUE(m_Store.messages().contains(s_BrakeLine));
    held.release();
    EXPECT_TRUE(waitUntil([] { return !manager().isWriteThreadsFull(); }));
    EXPECT_FALSE(brake.hasEnded());
    points.reached("caught up");
    EXPECT_TRUE(brake.ends());
}

TEST_F(ZebDataBlockManagerWriteQueue, TheBrakeLogsOneLineForEachSecondThatItSleeps)
{
    manager().setMaxWritePendingSizeFactor(0.0F);
    HeldWriter held;
    add(s_Megabyte, 1);
    int left = 3;
    const RecordedSleeps sleeps([&held, &left] {
        if (--left > 0)
            return;
        held.release();
        EXPECT_TRUE(waitUntil([] { return !manager().isWriteThreadsFull(); }));
    });
    manager().processIO();
    EXPECT_THAT(sleeps.milliseconds(), ElementsAre(1000, 1000, 1000));
    EXPECT_EQ(m_Store.messages().count(s_BrakeLine), 3);
}

TEST(ZebDataBlockManagerWriteQueueRootless, TheBrakeReturnsAtOnceWithoutWriters)
{
    TemporaryStore::Options options;
    options.m_Roots = 0;
    TemporaryStore store(options);
    store.messages().clear();
    manager().processIO();
    EXPECT_THAT(store.messages().debugLines(), IsEmpty());
    store.cleanUp();
    manager().processIO();
}
