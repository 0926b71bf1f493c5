// How an evicted block is written and deleted.

#include "manager/ZebDataBlockManager.h"

#include "hash/ZebHashManager.h"
#include "support/FailingDisk.h"
#include "support/HeldWriter.h"
#include "support/StoreFixture.h"
#include "support/StoreInside.h"
#include "support/WaitUntil.h"
#include "support/WriteErrors.h"

#include <QFile>
#include <QRegularExpression>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

using testing::IsEmpty;

namespace {

class ZebDataBlockManagerEvictionWrite : public StoreFixture
{
protected:
    ZebDataBlockManagerEvictionWrite() : StoreFixture(withOneBucket()) {}
};

} // namespace

TEST_F(ZebDataBlockManagerEvictionWrite, AWrittenBlockIsDeletedAtOnce)
{
    const ZebDataReference a = addCounted(1);
    waitForWriters();
    EXPECT_THAT(StoreInside::beingWritten(), IsEmpty());
    EXPECT_TRUE(evictEverything());
    EXPECT_EQ(m_Deleted, 1);
    EXPECT_TRUE(holdsTestBytes(a, s_Block, 1));
}

TEST_F(ZebDataBlockManagerEvictionWrite, ABlockWithAWriteInFlightIsDeletedAfterTheWrite)
{
    HeldWriter held;
    const qint64 liveBytes = manager().liveBytes();
    const ZebDataReference a = addCounted(1);
    ZebDataBlock* const block = StoreInside::blockOf(a);
    EXPECT_TRUE(StoreInside::beingWritten().contains(block));
    EXPECT_FALSE(manager().needsFreeingAfterWriting(block));

    EXPECT_TRUE(evictEverything());
    EXPECT_FALSE(a.isInMemory());
    EXPECT_EQ(manager().liveBytes(), liveBytes) << "outside the count, although it takes memory";
    EXPECT_TRUE(StoreInside::beingWritten().contains(block));
    EXPECT_TRUE(manager().needsFreeingAfterWriting(block));
    EXPECT_EQ(m_Deleted, 0);

    held.release();
    waitForWriters();
    EXPECT_EQ(m_Deleted, 1);
    EXPECT_THAT(StoreInside::beingWritten(), IsEmpty());
    EXPECT_THAT(StoreInside::toFreeAfterWriting(), IsEmpty());
    EXPECT_FALSE(manager().needsFreeingAfterWriting(block));
    EXPECT_TRUE(StoreInside::hasFile(a));
    EXPECT_TRUE(holdsTestBytes(a, s_Block, 1));
}

TEST_F(ZebDataBlockManagerEvictionWrite, ABlockOnAFailingDiskIsDeletedAfterItIsWritten)
{
    const WriteErrors errors;
    FailingDisk disk(m_Store.roots());
    const ZebDataReference evicted = addCounted(1);
    EXPECT_TRUE(evictEverything());
    const ZebDataReference resident = addCounted(2);
    EXPECT_TRUE(errors.waitFor(3));
    EXPECT_EQ(m_Deleted, 0);
    EXPECT_EQ(StoreInside::beingWritten().size(), 2);
    EXPECT_EQ(StoreInside::toFreeAfterWriting().size(), 1);

    disk.recover();
    waitForWriters();
    EXPECT_EQ(m_Deleted, 1);
    EXPECT_THAT(StoreInside::beingWritten(), IsEmpty());
    EXPECT_THAT(StoreInside::toFreeAfterWriting(), IsEmpty());
    EXPECT_TRUE(StoreInside::hasFile(resident));
    EXPECT_TRUE(holdsTestBytes(evicted, s_Block, 1));
}

TEST_F(ZebDataBlockManagerEvictionWrite, ReadingABlockEvictedWithItsWriteQueuedWaitsForTheWriter)
{
    HeldWriter held;
    const ZebDataReference a = addCounted(1);
    EXPECT_TRUE(evictEverything());
    std::future<bool> read =
        std::async(std::launch::async, [a] { return holdsTestBytes(a, s_Block, 1); });
    // The block's write, and the fence that the read has inserted after it.
    EXPECT_TRUE(waitUntil([] { return StoreInside::writers().front()->requests() == 2; }));
    held.release();
    EXPECT_TRUE(read.get());
    EXPECT_TRUE(a.isInMemory());
}

TEST_F(ZebDataBlockManagerEvictionWrite, ReadingFromAFailingDiskGivesANullAccessorAndLosesNothing)
{
    FailingDisk disk(m_Store.roots());
    const ZebDataReference a = add(s_Block, 1);
    EXPECT_TRUE(evictEverything());
    EXPECT_TRUE(a.constAccessor().isNull());
    const auto lines = m_Store.messages().debugLines();
    EXPECT_THAT(lines.filter(QRegularExpression(QStringLiteral("^Cannot read data from file '"))),
                testing::SizeIs(1));
    disk.recover();
    waitForWriters();
    EXPECT_TRUE(holdsTestBytes(a, s_Block, 1));
}

TEST_F(ZebDataBlockManagerEvictionWrite, TheSameBytesMayBeAddedWhileTheEvictedBlockIsBeingWritten)
{
    HeldWriter held;
    const int handled = StoreInside::writesHandled();
    const ZebDataReference first = addCounted(1);
    ZebDataBlock* const old = StoreInside::blockOf(first);
    EXPECT_TRUE(evictEverything());
    const ZebDataReference second = addCounted(1);
    EXPECT_EQ(first, second);
    EXPECT_NE(StoreInside::blockOf(second), old);
    EXPECT_EQ(StoreInside::beingWritten().size(), 3) << "both, and the one that holds the writer";
    EXPECT_FALSE(manager().needsFreeingAfterWriting(StoreInside::blockOf(second)));

    held.release();
    waitForWriters();
    EXPECT_EQ(StoreInside::writesHandled(), handled + 3);
    EXPECT_EQ(m_Deleted, 1) << "the old one";
    EXPECT_TRUE(StoreInside::blockOf(second)->cached());
    EXPECT_THAT(StoreInside::beingWritten(), IsEmpty());
    EXPECT_THAT(StoreInside::toFreeAfterWriting(), IsEmpty());
}

TEST_F(ZebDataBlockManagerEvictionWrite, EvictionHandsABlockWithoutAFileToItsWriter)
{
    const ZebDataReference a = addCounted(1);
    waitForWriters();
    ASSERT_TRUE(StoreInside::forgetFile(a));
    ZebDataBlock* const block = StoreInside::blockOf(a);
    {
        HeldWriter held;
        EXPECT_TRUE(evictEverything());
        EXPECT_FALSE(a.isInMemory());
        EXPECT_EQ(m_Deleted, 0);
        EXPECT_TRUE(StoreInside::beingWritten().contains(block));
        EXPECT_FALSE(manager().needsFreeingAfterWriting(block)) << "the request owns it";
        EXPECT_EQ(StoreInside::writers().front()->bytesInQueue(), s_Block);
    }
    EXPECT_EQ(m_Deleted, 1);
    EXPECT_THAT(StoreInside::beingWritten(), IsEmpty());
    EXPECT_TRUE(StoreInside::hasFile(a));
    EXPECT_TRUE(holdsTestBytes(a, s_Block, 1));
}

TEST_F(ZebDataBlockManagerEvictionWrite, TheLastReferenceDeletesItsBlockAtOnceWithoutAWrite)
{
    const int hashes = ZebHashManager::instance().hashCount();
    ZebDataReference a = addCounted(1);
    waitForWriters();
    ASSERT_TRUE(StoreInside::forgetFile(a));
    const QString file = StoreInside::fileOf(a);
    const int handled = StoreInside::writesHandled();
    a = ZebDataReference();
    EXPECT_EQ(m_Deleted, 1);
    EXPECT_EQ(manager().liveBytes(), 0);
    EXPECT_EQ(manager().liveBlocks(), 0);
    EXPECT_EQ(ZebHashManager::instance().hashCount(), hashes);
    waitForWriters();
    EXPECT_EQ(StoreInside::writesHandled(), handled);
    EXPECT_FALSE(QFile::exists(file));
}

TEST_F(ZebDataBlockManagerEvictionWrite, AQueuedWriteKeepsABlockWithoutReferences)
{
    const int hashes = ZebHashManager::instance().hashCount();
    QString file;
    {
        HeldWriter held;
        ZebDataReference a = addCounted(1);
        file = StoreInside::fileOf(a);
        const qint64 liveBytes = manager().liveBytes();
        a = ZebDataReference();
        EXPECT_EQ(manager().liveBytes(), liveBytes);
        EXPECT_EQ(m_Deleted, 0);
    }
    EXPECT_EQ(m_Deleted, 1);
    EXPECT_EQ(manager().liveBytes(), 0);
    EXPECT_EQ(ZebHashManager::instance().hashCount(), hashes);
    EXPECT_TRUE(QFile::exists(file));
}

TEST_F(ZebDataBlockManagerEvictionWrite, ABlockHeldByItsWriteAloneMayBeEvicted)
{
    const int hashes = ZebHashManager::instance().hashCount();
    {
        HeldWriter held;
        addCounted(1);
        EXPECT_TRUE(evictEverything());
        EXPECT_EQ(StoreInside::toFreeAfterWriting().size(), 1);
        EXPECT_EQ(m_Deleted, 0);
    }
    EXPECT_EQ(m_Deleted, 1);
    EXPECT_THAT(StoreInside::toFreeAfterWriting(), IsEmpty());
    EXPECT_EQ(ZebHashManager::instance().hashCount(), hashes);
}

TEST_F(ZebDataBlockManagerEvictionWrite, ANullBlockIsNeverFreedAfterWriting)
{
    EXPECT_FALSE(manager().needsFreeingAfterWriting(nullptr));
    manager().flagWritingBlockFinished(nullptr);
    manager().flagFreeingBlockFinishedAfterWriting(nullptr);
}

TEST_F(ZebDataBlockManagerEvictionWrite, FreeingAllBlocksWritesBlocksWithoutAFileAndWaitsForThem)
{
    const ZebDataReference a = addCounted(1);
    const ZebDataReference b = addCounted(2);
    waitForWriters();
    ASSERT_TRUE(StoreInside::forgetFile(a));
    manager().freeAllBlocks();
    EXPECT_EQ(m_Deleted, 2);
    EXPECT_THAT(StoreInside::beingWritten(), IsEmpty());
    EXPECT_TRUE(StoreInside::hasFile(a));
}

TEST_F(ZebDataBlockManagerEvictionWrite, AnUncachedBlockIsDeletedAtOnceEvenIfItIsToBeWritten)
{
    const ZebDataReference kept =
        manager().addBlock(testBytes(s_Block, 1), ZebModifyAccessor::DontCache);
    const int handled = StoreInside::writesHandled();
    StoreInside::freeBlock(kept.hashPtr().data(), true, false);
    EXPECT_EQ(manager().liveBytes(), 0);
    waitForWriters();
    EXPECT_EQ(StoreInside::writesHandled(), handled);
    EXPECT_FALSE(StoreInside::hasFile(kept));
}
