// What flush() queues, and for which disk threads it waits.

#include "manager/ZebDataBlockManager.h"

#include "data/ZebBlockFuture.h"
#include "support/BlockedThread.h"
#include "support/FailingDisk.h"
#include "support/FakeMemory.h"
#include "support/Fatal.h"
#include "support/HeldWriter.h"
#include "support/Manager.h"
#include "support/RecordedSleeps.h"
#include "support/StoreFixture.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"
#include "support/TestBytes.h"
#include "support/WriteErrors.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

using testing::IsEmpty;
using testing::Not;

namespace {

class ZebDataBlockManagerDiskThreadsFlush : public StoreFixture
{
protected:
    ZebDataBlockManagerDiskThreadsFlush() : StoreFixture(withOneBucket()) {}

    // A resident block that was never written, as far as the store can see.
    static ZebDataReference addUnwritten(quint32 seed)
    {
        const ZebDataReference reference = add(s_Block, seed);
        waitForWriters();
        EXPECT_TRUE(StoreInside::forgetFile(reference));
        return reference;
    }
};

} // namespace

TEST_F(ZebDataBlockManagerDiskThreadsFlush, WritesEveryCachedBlockAndLeavesNoneInFlight)
{
    std::vector<ZebDataReference> references;
    for (quint32 i = 0; i < 100; ++i)
        references.push_back(add(s_Block, i));
    manager().flush(true, ZebDataBlockManager::AllThreads);
    for (const ZebDataReference& reference : references) {
        EXPECT_TRUE(StoreInside::hasFile(reference));
        EXPECT_FALSE(manager().isBlockBeingWritten(reference));
        EXPECT_TRUE(StoreInside::blockOf(reference)->cached());
    }
    EXPECT_THAT(StoreInside::beingWritten(), IsEmpty());
}

TEST_F(ZebDataBlockManagerDiskThreadsFlush, LeavesNoHashingJobOfResolvedReferences)
{
    const int jobs = ZebBlockFuture::numHashJobs();
    std::vector<ZebDataReference> references;
    for (quint32 i = 0; i < 100; ++i)
        references.push_back(manager().addBlock(testBytes(s_Block, i)));
    for (const ZebDataReference& reference : references)
        EXPECT_TRUE(reference.isInMemory());
    manager().flush(true, ZebDataBlockManager::AllThreads);
    EXPECT_EQ(ZebBlockFuture::numHashJobs(), jobs);
    for (const ZebDataReference& reference : references)
        EXPECT_TRUE(StoreInside::hasFile(reference));
}

TEST_F(ZebDataBlockManagerDiskThreadsFlush, WritesResidentBlocksWithoutAFileOnRequestOnly)
{
    const ZebDataReference reference = addUnwritten(1);
    const int handled = StoreInside::writesHandled();
    manager().flush(false, ZebDataBlockManager::AllThreads);
    EXPECT_EQ(StoreInside::writesHandled(), handled);
    EXPECT_FALSE(StoreInside::hasFile(reference));
    manager().flush(true, ZebDataBlockManager::AllThreads);
    EXPECT_EQ(StoreInside::writesHandled(), handled + 1);
    EXPECT_TRUE(StoreInside::hasFile(reference));
    EXPECT_TRUE(reference.isInMemory()) << "the write does not own it";
}

TEST_F(ZebDataBlockManagerDiskThreadsFlush, QueuesNoWrittenQueuedOrUncachedBlock)
{
    const ZebDataReference written = add(s_Block, 1);
    manager().flush(true, ZebDataBlockManager::AllThreads);
    const ZebDataReference kept =
        manager().addBlock(testBytes(s_Block, 2), ZebModifyAccessor::DontCache);
    const HeldWriter held;
    const ZebDataReference queued = add(s_Block, 3);
    manager().flush(true, ZebDataBlockManager::ReadThreads);
    EXPECT_EQ(StoreInside::writers().front()->requests(), 1);
    EXPECT_EQ(StoreInside::beingWritten().size(), 2);
    EXPECT_FALSE(StoreInside::hasFile(kept));
}

TEST_F(ZebDataBlockManagerDiskThreadsFlush, QueuesWithoutWaitingUnlessAskedToWaitForWriters)
{
    const ZebDataReference reference = addUnwritten(1);
    const HeldWriter held;
    manager().flush(true, ZebDataBlockManager::GarbageCollectorThreads);
    EXPECT_EQ(StoreInside::writers().front()->requests(), 1);
    EXPECT_TRUE(manager().isBlockBeingWritten(reference));
    EXPECT_FALSE(StoreInside::hasFile(reference));
}

TEST_F(ZebDataBlockManagerDiskThreadsFlush, WaitingForCollectorsOrReadersDoesNotWaitForWriters)
{
    const HeldWriter held;
    add(s_Block, 1);
    manager().flush(false, ZebDataBlockManager::GarbageCollectorThreads);
    manager().flush(false, ZebDataBlockManager::ReadThreads);
    EXPECT_EQ(StoreInside::writers().front()->requests(), 1);
}

TEST_F(ZebDataBlockManagerDiskThreadsFlush, WaitingForReadersEmptiesTheirLists)
{
    std::vector<ZebDataReference> references;
    for (quint32 i = 0; i < 50; ++i)
        references.push_back(add(s_Block, i));
    manager().freeAllBlocks();
    const int handled = StoreInside::preloadsHandled();
    for (const ZebDataReference& reference : references)
        reference.preload();
    manager().flush(false, ZebDataBlockManager::ReadThreads);
    EXPECT_EQ(StoreInside::readers().front()->requests(), 0);
    EXPECT_EQ(StoreInside::preloadsHandled(), handled + 50);
}

TEST_F(ZebDataBlockManagerDiskThreadsFlush, WaitsForAFailingDiskUntilItRecovers)
{
    const WriteErrors errors;
    FailingDisk disk(m_Store.roots());
    const ZebDataReference reference = add(s_Block, 1);
    BlockedThread waiting([] { manager().flush(true, ZebDataBlockManager::AllThreads); });
    EXPECT_TRUE(errors.waitFor(20));
    EXPECT_FALSE(waiting.hasEnded());
    disk.recover();
    EXPECT_TRUE(waiting.ends());
    EXPECT_TRUE(StoreInside::hasFile(reference));
    EXPECT_FALSE(manager().isBlockBeingWritten(reference));
}

TEST_F(ZebDataBlockManagerDiskThreadsFlush, SleepsAMillisecondEvenWithNothingToWaitFor)
{
    for (const ZebDataBlockManager::ThreadType threads :
         {ZebDataBlockManager::GarbageCollectorThreads, ZebDataBlockManager::ReadThreads,
          ZebDataBlockManager::WriteThreads, ZebDataBlockManager::AllThreads}) {
        const RecordedSleeps sleeps;
        manager().flush(false, threads);
        // A reader's flush polls at shorter intervals before.
        ASSERT_THAT(sleeps.milliseconds(), Not(IsEmpty())) << threads;
        EXPECT_EQ(sleeps.milliseconds().back(), 1) << threads;
    }
}

TEST_F(ZebDataBlockManagerDiskThreadsFlush, MayRunDuringAdmissions)
{
    constexpr quint32 blocks = 300;
    std::vector<std::vector<ZebDataReference>> references(2);
    std::atomic<int> adding{2};
    std::vector<std::thread> threads;
    for (quint32 t = 0; t < 2; ++t) {
        threads.emplace_back([&references, &adding, t] {
            for (quint32 i = 0; i < blocks; ++i)
                references[t].push_back(add(100, t * blocks + i));
            --adding;
        });
    }
    while (adding > 0)
        manager().flush(true, ZebDataBlockManager::AllThreads);
    for (std::thread& thread : threads)
        thread.join();
    manager().flush(true, ZebDataBlockManager::AllThreads);
    EXPECT_EQ(StoreInside::writesHandled(), 2 * static_cast<int>(blocks)) << "each once";
    EXPECT_THAT(StoreInside::beingWritten(), IsEmpty());
    for (const auto& ofThread : references) {
        for (const ZebDataReference& reference : ofThread)
            EXPECT_TRUE(StoreInside::hasFile(reference));
    }
}

TEST_F(ZebDataBlockManagerDiskThreadsFlush, NeedsAStore)
{
    m_Store.cleanUp();
    EXPECT_FATAL(manager().flush(false, ZebDataBlockManager::GarbageCollectorThreads),
                 "Data Block Manager Not Initialized. Aborting");
}

TEST(ZebDataBlockManagerDiskThreadsFlushRootless, QueuesNothing)
{
    const FakeMemory memory;
    TemporaryStore::Options options;
    options.m_Roots = 0;
    const TemporaryStore store(options);
    const ZebDataReference kept =
        manager().addBlock(testBytes(1000, 1), ZebModifyAccessor::DontCache);
    manager().flush(true, ZebDataBlockManager::AllThreads);
    EXPECT_THAT(StoreInside::beingWritten(), IsEmpty());
    EXPECT_EQ(manager().liveBytes(), 1000);
    EXPECT_EQ(manager().getWriteThreadCount(), 0);
    EXPECT_FALSE(manager().isWriteThreadsFull());
}
