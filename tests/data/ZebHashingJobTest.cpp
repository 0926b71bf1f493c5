#include "data/ZebHashingJob.h"

#include "data/ZebDataBlock.h"
#include "data/ZebThreadPoolManager.h"
#include "hash/ZebHashManager.h"
#include "support/BlockedThread.h"
#include "support/BusyHashingPool.h"
#include "support/BytesOf.h"
#include "support/CountedBlock.h"
#include "support/Fatal.h"
#include "support/FutureInside.h"
#include "support/Manager.h"
#include "support/Registry.h"
#include "support/RunTogether.h"
#include "support/TemporaryStore.h"
#include "support/WaitUntil.h"
#include "support/ZebDataDeleteLocker.h"

#include <QRunnable>
#include <QThreadPool>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

using HashPointer = ZebSmartPointer<ZebDataHash>;
using FuturePointer = ZebSmartPointer<ZebBlockFuture>;

QThreadPool& hashingPool()
{
    return *ZebThreadPoolManager::instance().threadPool(ZebThreadPoolManager::HashingThreadPool);
}

// Opens the work of a job to the test.
struct OpenJob : ZebHashingJob
{
    using ZebHashingJob::processBlock;
    using ZebHashingJob::processBlockByteArray;
};

ZebDataReference pending(const QByteArray& bytes)
{
    return ZebDataReference(FuturePointer(new ZebHashingJob(bytes)));
}

ZebDataReference immediate(const QByteArray& bytes)
{
    return manager().addBlock(bytes, ZebModifyAccessor::Cached, true);
}

QString textOf(const QByteArray& bytes)
{
    return ZebDataHash(bytes, ZebDataHash::Hash512).toString();
}

void expectIdleCounters()
{
    EXPECT_EQ(ZebHashingJob::liveHashJobCount(), 0);
    EXPECT_EQ(ZebHashingJob::unfinishedHashJobCount(), 0);
}

} // namespace

// What a job yields

TEST(ZebHashingJob, JobOfBytesYieldsAReferenceOfTheirBlock)
{
    const TemporaryStore store;
    const QByteArray bytes(100000, 'h');
    const ZebDataReference reference = pending(bytes);
    EXPECT_TRUE(reference.isInMemory());
    EXPECT_EQ(reference.hash(), textOf(bytes));
    EXPECT_EQ(bytesOf(reference), bytes);
    EXPECT_EQ(manager().liveBytes(), 100000);
    EXPECT_FALSE(reference.hashPtr()->isDontCache());
}

TEST(ZebHashingJob, JobOfABlockMakesThatVeryBlockResident)
{
    const TemporaryStore store;
    auto* const block = new ZebDataBlock(QByteArray("a given block"));
    const unsigned char* const address = block->constData();
    const ZebDataReference reference{FuturePointer(new ZebHashingJob(block))};
    EXPECT_EQ(reference.constAccessor().data(), address);
    EXPECT_EQ(reference.hash(), textOf("a given block"));
}

TEST(ZebHashingJob, ResidentBlockOfEqualBytesIsKept)
{
    const TemporaryStore store;
    std::atomic<int> deleted{0};
    const ZebDataReference first = immediate("equal bytes..");
    const unsigned char* const address = first.constAccessor().data();
    const ZebDataReference second{
        FuturePointer(new ZebHashingJob(new CountedBlock("equal bytes..", &deleted)))};
    second.resolveWork();
    EXPECT_TRUE(first == second);
    EXPECT_EQ(second.constAccessor().data(), address);
    EXPECT_EQ(deleted.load(), 1);
    EXPECT_EQ(manager().liveBytes(), 13);
}

TEST(ZebHashingJob, PendingAndImmediateBlocksOfEqualBytesAreOne)
{
    const TemporaryStore store;
    const ZebDataReference later = manager().addBlock("one", ZebModifyAccessor::Cached, false);
    const ZebDataReference now = manager().addBlock("one", ZebModifyAccessor::Cached, true);
    EXPECT_FALSE(later == now);
    EXPECT_EQ(later.hash(), now.hash());
    EXPECT_TRUE(later == now);
    EXPECT_EQ(manager().liveBlocks(), 1);
}

TEST(ZebHashingJob, BytesAreSharedUntilTheBlockMakesItsCopy)
{
    const TemporaryStore store;
    QByteArray bytes(5000, 's');
    ZebDataReference reference;
    {
        const BusyHashingPool busy;
        reference = pending(bytes);
        EXPECT_FALSE(bytes.isDetached());
        reference.resolveWork();
        // A job that has ended no longer shares the caller's storage.
        EXPECT_TRUE(bytes.isDetached());
    }
    bytes.fill('x');
    EXPECT_EQ(bytesOf(reference), QByteArray(5000, 's'));
}

TEST(ZebHashingJob, WorkCalledDirectlyDoesWhatTheJobDoes)
{
    const TemporaryStore store;
    const ZebDataReference ofBytes = OpenJob::processBlockByteArray("by hand");
    EXPECT_FALSE(ofBytes.hasHashJob());
    EXPECT_TRUE(ofBytes.isInMemory());
    const ZebDataReference ofBlock = OpenJob::processBlock(new ZebDataBlock("by hand"));
    EXPECT_TRUE(ofBlock == ofBytes);
    EXPECT_TRUE(OpenJob::processBlock(nullptr).isNull());
    EXPECT_EQ(OpenJob::processBlockByteArray(QByteArray()).hash(), textOf(QByteArray()));
}

TEST(ZebHashingJob, NullBlockYieldsNull)
{
    ASSERT_FALSE(manager().isInitialized());
    const FuturePointer job(new ZebHashingJob(static_cast<ZebDataBlock*>(nullptr)));
    EXPECT_TRUE(job->data().isNull());
    EXPECT_TRUE(job->data().isNull());
}

TEST(ZebHashingJob, ReferenceOnANullBlocksJobIsFatal)
{
    EXPECT_FATAL(
        {
            const FuturePointer job(new ZebHashingJob(static_cast<ZebDataBlock*>(nullptr)));
            ZebDataReference(job).resolveWork();
        },
        "Null Value for m_DataHash");
}

TEST(ZebHashingJob, JobWithoutAStoreIsFatal)
{
    EXPECT_FATAL(pending("no store").resolveWork(), "Data Block Manager Not Initialized. Aborting");
}

TEST(ZebHashingJob, JobOfABlockAboveTheLimitIsFatal)
{
    EXPECT_FATAL(
        {
            manager().setup({}, 100);
            pending(QByteArray(101, 'x')).resolveWork();
        },
        "Requested Block is larger than the maximum allocation size 101 / 100");
}

// When it runs

TEST(ZebHashingJob, RunsWithoutAWaitingThread)
{
    const TemporaryStore store;
    const ZebDataReference reference = pending("no waiters");
    EXPECT_TRUE(waitUntil([] { return manager().liveBytes() == 10; }));
    EXPECT_TRUE(reference.hasHashJob());
    EXPECT_TRUE(registry().isHashLive(textOf("no waiters")));
}

TEST(ZebHashingJob, BlockIsUnknownUntilItsTaskHasRun)
{
    const TemporaryStore store;
    const int registered = registry().hashCount();
    BusyHashingPool busy;
    const ZebDataReference reference = manager().addBlock("still unknown");
    EXPECT_TRUE(reference.hasHashJob());
    EXPECT_FALSE(reference.isNull());
    EXPECT_EQ(registry().hashCount(), registered);
    EXPECT_FALSE(registry().isHashLive(textOf("still unknown")));
    EXPECT_EQ(manager().liveBytes(), 0);
    busy.release();
    EXPECT_TRUE(reference.hasHashJob());
    EXPECT_TRUE(registry().isHashLive(textOf("still unknown")));
    EXPECT_EQ(manager().liveBytes(), 13);
}

TEST(ZebHashingJob, WaitingThreadRunsAJobThatHasNotBegun)
{
    const TemporaryStore store;
    const BusyHashingPool busy;
    const ZebDataReference first = manager().addBlock("run by the waiting thread");
    const ZebDataReference second = manager().addBlock("left in the pool");
    EXPECT_TRUE(first.isInMemory());
    EXPECT_FALSE(first.hasHashJob());
    EXPECT_EQ(bytesOf(first), "run by the waiting thread");
    // The other job has not run.
    EXPECT_FALSE(registry().isHashLive(textOf("left in the pool")));
}

TEST(ZebHashingJob, TaskInAPoolOfOneThreadMayWaitForAJob)
{
    const TemporaryStore store;
    ZebDataReference reference;
    bool resident = false;
    {
        BusyHashingPool busy;
        reference = manager().addBlock("waited for inside the pool");
        hashingPool().start(
            [&] { resident = manager().addBlock("added inside the pool").isInMemory(); }, 1);
        busy.release();
    }
    EXPECT_TRUE(resident);
    EXPECT_TRUE(reference.isInMemory());
}

TEST(ZebHashingJob, RunsAtPriorityZeroInQueueOrder)
{
    const TemporaryStore store;
    const QByteArray bytes("in queue order");
    const HashPointer hash = registry().getHash(bytes);
    struct
    {
        bool m_MoreUrgent = true;
        bool m_Before = true;
        bool m_After = false;
        bool m_LessUrgent = false;
    } resident;
    {
        BusyHashingPool busy;
        const auto look = [&](bool* seen, int priority) {
            hashingPool().start([&hash, seen] { *seen = manager().isInMemory(hash.data()); },
                                priority);
        };
        look(&resident.m_Before, 0);
        const ZebDataReference reference = pending(bytes);
        look(&resident.m_After, 0);
        look(&resident.m_LessUrgent, -1);
        look(&resident.m_MoreUrgent, 1);
        busy.release();
    }
    EXPECT_FALSE(resident.m_MoreUrgent);
    EXPECT_FALSE(resident.m_Before);
    EXPECT_TRUE(resident.m_After);
    EXPECT_TRUE(resident.m_LessUrgent);
}

TEST(ZebHashingJob, CleanUpDoesNotWaitForTheHashingPool)
{
    TemporaryStore store;
    BusyHashingPool busy;
    std::atomic<bool> ran{false};
    hashingPool().start([&] { ran.store(true); });
    store.cleanUp();
    EXPECT_FALSE(manager().isInitialized());
    EXPECT_FALSE(ran.load());
    busy.release();
    EXPECT_TRUE(ran.load());
}

// Waiting for the result

TEST(ZebHashingJob, ResolvingEndsTheJob)
{
    const TemporaryStore store;
    const int alive = ZebBlockFuture::numHashJobs();
    const ZebDataReference reference = manager().addBlock("resolved once");
    EXPECT_TRUE(reference.hasHashJob());
    EXPECT_EQ(ZebBlockFuture::numHashJobs(), alive + 1);
    reference.resolveWork();
    EXPECT_FALSE(reference.hasHashJob());
    EXPECT_EQ(ZebBlockFuture::numHashJobs(), alive);
}

TEST(ZebHashingJob, EveryCallReturnsTheSameResult)
{
    const TemporaryStore store;
    const FuturePointer job(new ZebHashingJob(QByteArray("called twice")));
    const ZebDataReference first = job->data();
    EXPECT_FALSE(first.hasHashJob());
    EXPECT_FALSE(first.isNull());
    EXPECT_TRUE(job->data() == first);
}

TEST(ZebHashingJob, SeveralThreadsMayWaitAtOnce)
{
    const TemporaryStore store;
    const int references = ZebDataReference::referenceCount();
    for (int round = 0; round < 50; ++round) {
        const QByteArray bytes = "round " + QByteArray::number(round);
        const QString text = textOf(bytes);
        std::unique_ptr<BusyHashingPool> busy;
        // In every other round the job has not begun, and a waiting thread does the work.
        if (round % 2 == 0)
            busy = std::make_unique<BusyHashingPool>();
        const FuturePointer job(new ZebHashingJob(bytes));
        std::atomic<int> right{0};
        runTogether(4, [&](int) {
            const ZebDataReference mine = job->data();
            if (!mine.hasHashJob() && mine.hash() == text && mine == job->data())
                right.fetch_add(1);
        });
        ASSERT_EQ(right.load(), 4) << round;
        busy.reset();
        ASSERT_FALSE(HasFailure()) << round;
    }
    EXPECT_EQ(ZebDataReference::referenceCount(), references);
}

TEST(ZebHashingJob, CopiesOfAReferenceResolveAtOnce)
{
    const TemporaryStore store;
    const int alive = ZebBlockFuture::numHashJobs();
    const ZebDataReference twin = immediate(QByteArray(50000, 'c'));
    ZebDataReference original = manager().addBlock(QByteArray(50000, 'c'));
    std::vector<std::thread> threads;
    std::atomic<int> equal{0};
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&equal, &twin, mine = original] {
            mine.resolveWork();
            if (mine == twin)
                equal.fetch_add(1);
        });
    }
    original.resolveWork();
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(equal.load(), 4);
    EXPECT_EQ(ZebBlockFuture::numHashJobs(), alive);
}

// The end of a job

TEST(ZebHashingJob, DroppingAPendingReferenceAdmitsTheBlock)
{
    const TemporaryStore store;
    const int alive = ZebBlockFuture::numHashJobs();
    const HashPointer hash = registry().getHash(QByteArray("dropped"));
    {
        // The job cannot begin in the pool before the reference is dropped.
        const BusyHashingPool busy;
        ZebDataReference reference = manager().addBlock("dropped");
        ASSERT_FALSE(manager().isInMemory(hash.data()));
        reference = ZebDataReference();
        EXPECT_TRUE(manager().isInMemory(hash.data()));
        EXPECT_EQ(ZebBlockFuture::numHashJobs(), alive);
    }
    EXPECT_EQ(bytesOf(ZebDataReference(hash)), "dropped");
}

TEST(ZebHashingJob, DroppingAPendingReferenceWaitsForARunningJob)
{
    const TemporaryStore store;
    const int alive = ZebBlockFuture::numHashJobs();
    const HashPointer hash = registry().getHash(QByteArray("dropped while it runs"));
    const int holders = hash->refCount();
    std::atomic<bool> admitted{false};
    auto reference = std::make_unique<ZebDataReference>();
    std::unique_ptr<BlockedThread> thread;
    {
        // The job needs this lock to admit the block.
        const ZebDataDeleteLocker deleteLocker;
        *reference = pending("dropped while it runs");
        EXPECT_TRUE(pollUntil([&] { return hash->refCount() > holders; }));
        thread = std::make_unique<BlockedThread>([&] {
            reference.reset();
            admitted.store(manager().isInMemory(hash.data()));
        });
        EXPECT_TRUE(thread->standsStill());
        EXPECT_EQ(ZebBlockFuture::numHashJobs(), alive + 1);
    }
    EXPECT_TRUE(thread->ends());
    EXPECT_TRUE(admitted.load());
    EXPECT_EQ(ZebBlockFuture::numHashJobs(), alive);
}

TEST(ZebHashingJob, DroppedBlockIsFreedWithTheLastHolderOfItsHash)
{
    const TemporaryStore store;
    const int registered = registry().hashCount();
    const int alive = ZebBlockFuture::numHashJobs();
    const int references = ZebDataReference::referenceCount();
    for (int i = 0; i < 300; ++i) {
        const QByteArray bytes = "dropped at once " + QByteArray::number(i);
        const QString text = textOf(bytes);
        FuturePointer job(new ZebHashingJob(bytes));
        // In three of four rounds the task has registered the hash, and ends about now.
        if (i % 4 != 0) {
            EXPECT_TRUE(pollUntil([&] { return registry().isHashLive(text); }));
        }
        job = FuturePointer();
        // The task keeps neither bytes nor result after the wait for it.
        ASSERT_TRUE(bytes.isDetached()) << i;
        ASSERT_EQ(ZebDataReference::referenceCount(), references) << i;
    }
    EXPECT_EQ(ZebBlockFuture::numHashJobs(), alive);
    EXPECT_TRUE(waitUntil([&] { return registry().hashCount() == registered; }));
    EXPECT_TRUE(waitUntil([] { return manager().liveBytes() == 0; }));
    EXPECT_TRUE(waitUntil([] { return manager().liveBlocks() == 0; }));
}

TEST(ZebHashingJob, JobKeepsTheBlockRegisteredUntilItIsDropped)
{
    const TemporaryStore store;
    const int registered = registry().hashCount();
    {
        const ZebDataReference unresolved = pending("kept by the job");
        EXPECT_TRUE(waitUntil([] { return manager().liveBytes() == 15; }));
        EXPECT_EQ(registry().hashCount(), registered + 1);
    }
    EXPECT_TRUE(waitUntil([&] { return registry().hashCount() == registered; }));
    EXPECT_TRUE(waitUntil([] { return manager().liveBytes() == 0; }));
}

TEST(ZebHashingJob, DroppingAQueuedJobOfABlockDeletesTheBlock)
{
    const TemporaryStore store;
    std::atomic<int> deleted{0};
    {
        const BusyHashingPool busy;
        const FuturePointer job(new ZebHashingJob(new CountedBlock("queued block", &deleted)));
        EXPECT_EQ(deleted.load(), 0);
    }
    EXPECT_TRUE(waitUntil([&] { return deleted.load() == 1; }));
}

// Copies and counters

TEST(ZebHashingJob, CopySharesTheRunningWork)
{
    const TemporaryStore store;
    const int alive = ZebBlockFuture::numHashJobs();
    {
        const BusyHashingPool busy;
        ZebHashingJob job(QByteArray("shared work"));
        ZebHashingJob copy(job);
        EXPECT_EQ(ZebBlockFuture::numHashJobs(), alive + 1);
        EXPECT_EQ(copy.refCount(), 0);
        const ZebDataReference ofCopy = copy.data();
        EXPECT_EQ(ofCopy.hash(), textOf("shared work"));
        EXPECT_TRUE(job.data() == ofCopy);
        // A result that has been fetched is copied as well.
        ZebHashingJob second(job);
        EXPECT_TRUE(second.data() == ofCopy);
    }
    EXPECT_EQ(ZebBlockFuture::numHashJobs(), alive - 2);
    FutureInside::aliveCount().fetchAndAddOrdered(2);
}

TEST(ZebHashingJob, AssignmentTakesWorkAndResult)
{
    const TemporaryStore store;
    const int alive = ZebBlockFuture::numHashJobs();
    {
        ZebHashingJob source(QByteArray("source"));
        ZebHashingJob target(QByteArray("target"));
        EXPECT_EQ(target.data().hash(), textOf("target"));
        target = source;
        EXPECT_EQ(target.data().hash(), textOf("source"));
        const ZebHashingJob& alias = target;
        target = alias;
        EXPECT_EQ(target.data().hash(), textOf("source"));
        ZebHashingJob late(QByteArray("late"));
        late = target;
        EXPECT_TRUE(late.data() == target.data());
        EXPECT_EQ(ZebBlockFuture::numHashJobs(), alive + 3);
    }
    hashingPool().waitForDone();
    EXPECT_EQ(ZebBlockFuture::numHashJobs(), alive);
}

TEST(ZebHashingJob, IdleCountersStayZero)
{
    const TemporaryStore store;
    expectIdleCounters();
    {
        BusyHashingPool busy;
        const ZebDataReference queued = pending("queued");
        expectIdleCounters();
        busy.release();
        expectIdleCounters();
    }
    expectIdleCounters();
}

TEST(ZebHashingJob, IsAFutureThatHostsMayMake)
{
    static_assert(std::is_base_of_v<ZebBlockFuture, ZebHashingJob>);
    const TemporaryStore store;
    // Through the base: data() is virtual.
    const std::unique_ptr<ZebBlockFuture> job =
        std::make_unique<ZebHashingJob>(QByteArray("through the base"));
    EXPECT_EQ(job->data().hash(), textOf("through the base"));
}
