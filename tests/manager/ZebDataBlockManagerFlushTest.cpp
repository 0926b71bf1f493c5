// How callers wait for the disk threads, and how these begin and end with the store.

#include "manager/ZebDataBlockManager.h"

#include "data/ZebBlockFuture.h"
#include "hash/ZebHashManager.h"
#include "io/ZebGarbageCollectorThread.h"
#include "support/FailingDisk.h"
#include "support/FakeMemory.h"
#include "support/Fatal.h"
#include "support/HeldWriter.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"
#include "support/TestBytes.h"
#include "support/WaitUntil.h"

#include <QObject>
#include <QThread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

using CollectorsMember = QVector<ZebGarbageCollectorThread*> ZebDataBlockManager::*;

ZEBTDX_ACCESS(CollectorsTag, ZebDataBlockManager, CollectorsMember, m_GarbageCollectors)
ZEBTDX_ACCESS(StopAllIoThreadsTag, ZebDataBlockManager, void (ZebDataBlockManager::*)(),
              stopAllIoThreads)

using StoreInside::manager;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr int s_Block = 1000;
constexpr int s_Megabyte = 1048576;
constexpr int s_LongWaitMs = 20000;

const char* const s_NotInitialized = "Data Block Manager Not Initialized. Aborting";

ZebDataReference add(int size, quint32 seed)
{
    return manager().addBlock(testBytes(size, seed), ZebModifyAccessor::Cached, true);
}

TemporaryStore::Options withRoots(int roots)
{
    TemporaryStore::Options options;
    options.m_Roots = roots;
    options.m_Buckets = 1;
    return options;
}

class ZebDataBlockManagerFlush : public testing::Test
{
protected:
    ZebDataBlockManagerFlush() : m_Store(withRoots(1)) { manager().flushMemory(true); }
    ~ZebDataBlockManagerFlush() override
    {
        manager().setMaxWritePendingSizeFactor(manager().defaultMaxWritePendingSizeFactor());
    }

    // A resident block that was never written, as far as the store knows.
    static ZebDataReference addUnwritten(quint32 seed)
    {
        const ZebDataReference reference = add(s_Block, seed);
        manager().flush(false, ZebDataBlockManager::WriteThreads);
        EXPECT_TRUE(StoreInside::forgetFile(reference));
        return reference;
    }

    FakeMemory m_Memory;
    TemporaryStore m_Store;
};

QVector<ZebGarbageCollectorThread*> collectors()
{
    return manager().*privateMember(CollectorsTag());
}

// The ends of the disk threads in the order in which they come.
class Ends
{
public:
    Ends()
    {
        for (ZebGarbageCollectorThread* const collector : collectors())
            watch(collector, 'c');
        for (ZebDataBlockReadThread* const reader : StoreInside::readers())
            watch(reader, 'r');
        for (ZebDataBlockWriteThread* const writer : StoreInside::writers())
            watch(writer, 'w');
    }

    std::string finished() const { return m_Finished; }
    std::string destroyed() const { return m_Destroyed; }
    /// Whether each thread could take the delete lock as its last act.
    const std::vector<bool>& couldLock() const { return m_CouldLock; }

private:
    void watch(QThread* thread, char kind)
    {
        QObject::connect(
            thread, &QThread::finished, &m_Receiver,
            [this, kind] {
                const bool locked = StoreInside::deleteLock().tryLock(s_LongWaitMs);
                if (locked)
                    StoreInside::deleteLock().unlock();
                const std::lock_guard<std::mutex> guard(m_Mutex);
                m_CouldLock.push_back(locked);
                m_Finished += kind;
            },
            Qt::DirectConnection);
        QObject::connect(
            thread, &QObject::destroyed, &m_Receiver, [this, kind] { m_Destroyed += kind; },
            Qt::DirectConnection);
    }

    QObject m_Receiver;
    std::mutex m_Mutex;
    std::string m_Finished;
    std::string m_Destroyed;
    std::vector<bool> m_CouldLock;
};

} // namespace

// flush

TEST_F(ZebDataBlockManagerFlush, AfterwardsEveryCachedBlockHasAFileAndNoneIsBeingWritten)
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

TEST_F(ZebDataBlockManagerFlush, AfterPendingReferencesWereAskedForNoHashingJobIsLeft)
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

TEST_F(ZebDataBlockManagerFlush, AResidentBlockWithoutAFileIsWrittenWhenAskedForOnly)
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

TEST_F(ZebDataBlockManagerFlush, BlocksWithAFileOrAWriteInFlightOrNoCachingAreNotQueued)
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

TEST_F(ZebDataBlockManagerFlush, WithoutTheFlagOfTheWritersItQueuesAndDoesNotWait)
{
    const ZebDataReference reference = addUnwritten(1);
    const HeldWriter held;
    manager().flush(true, ZebDataBlockManager::GarbageCollectorThreads);
    EXPECT_EQ(StoreInside::writers().front()->requests(), 1);
    EXPECT_TRUE(manager().isBlockBeingWritten(reference));
    EXPECT_FALSE(StoreInside::hasFile(reference));
}

TEST_F(ZebDataBlockManagerFlush, WaitingForCollectorsOrReadersDoesNotWaitForWriters)
{
    const HeldWriter held;
    add(s_Block, 1);
    manager().flush(false, ZebDataBlockManager::GarbageCollectorThreads);
    manager().flush(false, ZebDataBlockManager::ReadThreads);
    EXPECT_EQ(StoreInside::writers().front()->requests(), 1);
}

TEST_F(ZebDataBlockManagerFlush, WaitingForReadersEmptiesTheirLists)
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

TEST_F(ZebDataBlockManagerFlush, AFailingDiskIsWaitedForUntilItRecovers)
{
    std::atomic<int> errors{0};
    const QObject receiver;
    QObject::connect(
        &manager(), &ZebDataBlockManager::writeError, &receiver, [&errors] { ++errors; },
        Qt::DirectConnection);
    FailingDisk disk(m_Store.roots());
    const ZebDataReference reference = add(s_Block, 1);
    std::atomic<bool> returned{false};
    std::thread waiting([&returned] {
        manager().flush(true, ZebDataBlockManager::AllThreads);
        returned = true;
    });
    EXPECT_TRUE(waitUntil([&errors] { return errors >= 20; }));
    EXPECT_FALSE(returned);
    disk.recover();
    waiting.join();
    EXPECT_TRUE(StoreInside::hasFile(reference));
    EXPECT_FALSE(manager().isBlockBeingWritten(reference));
}

TEST_F(ZebDataBlockManagerFlush, MayRunBesideAdmissions)
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

TEST_F(ZebDataBlockManagerFlush, ANullHashAmongTheBlocksIsFatal)
{
    EXPECT_FATAL(
        {
            (manager().*privateMember(StoreBlocksTag())).insert(nullptr, nullptr);
            manager().flush(true, ZebDataBlockManager::AllThreads);
        },
        "Null Value in Hash to Block Map");
}

TEST_F(ZebDataBlockManagerFlush, NeedsAStore)
{
    m_Store.cleanUp();
    EXPECT_FATAL(manager().flush(false, ZebDataBlockManager::GarbageCollectorThreads),
                 s_NotInitialized);
    EXPECT_FATAL((manager().*privateMember(StopAllIoThreadsTag()))(), s_NotInitialized);
}

TEST(ZebDataBlockManagerRootless, FlushingQueuesNothing)
{
    const FakeMemory memory;
    const TemporaryStore store(withRoots(0));
    const ZebDataReference kept =
        manager().addBlock(testBytes(s_Block, 1), ZebModifyAccessor::DontCache);
    manager().flush(true, ZebDataBlockManager::AllThreads);
    EXPECT_THAT(StoreInside::beingWritten(), IsEmpty());
    EXPECT_EQ(manager().liveBytes(), s_Block);
    EXPECT_EQ(manager().getWriteThreadCount(), 0);
    EXPECT_FALSE(manager().isWriteThreadsFull());
}

// isBlockBeingWritten

TEST_F(ZebDataBlockManagerFlush, ABlockIsBeingWrittenFromItsAdmissionUntilItsWriterIsDone)
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

TEST_F(ZebDataBlockManagerFlush, AskingAboutAPendingReferenceWaitsForItsJob)
{
    const HeldWriter held;
    const ZebDataReference reference = manager().addBlock(testBytes(s_Block, 1));
    EXPECT_TRUE(reference.hasHashJob());
    EXPECT_TRUE(manager().isBlockBeingWritten(reference));
    EXPECT_FALSE(reference.hasHashJob());
}

TEST_F(ZebDataBlockManagerFlush, AnEvictedBlockIsNotBeingWrittenEvenIfItsWriteIsQueued)
{
    const HeldWriter held;
    const ZebDataReference reference = add(s_Block, 1);
    ZebDataBlock* const block = StoreInside::blockOf(reference);
    EXPECT_TRUE(manager().flushMemory(true));
    EXPECT_TRUE(StoreInside::beingWritten().contains(block));
    EXPECT_FALSE(manager().isBlockBeingWritten(reference));
}

TEST_F(ZebDataBlockManagerFlush, NullReferencesAndDoNotCacheBlocksAreNotBeingWritten)
{
    EXPECT_FALSE(manager().isBlockBeingWritten(ZebDataReference()));
    const ZebDataReference kept =
        manager().addBlock(testBytes(s_Block, 1), ZebModifyAccessor::DontCache);
    EXPECT_FALSE(manager().isBlockBeingWritten(kept));
}

// The questions about writers

TEST_F(ZebDataBlockManagerFlush, WritersAreFullWhenTheirQueuesReachTheLimitOfPendingBytes)
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

TEST_F(ZebDataBlockManagerFlush, WithoutAStoreTheQuestionsAreAnsweredAllTheSame)
{
    const ZebDataReference reference = add(s_Block, 1);
    m_Store.cleanUp();
    EXPECT_EQ(manager().getWriteThreadCount(), 0);
    EXPECT_FALSE(manager().isWriteThreadsFull());
    EXPECT_FALSE(manager().isBlockBeingWritten(reference));
    manager().processIO();
}

// The threads themselves

TEST(ZebDataBlockManagerThreads,
     EachRootHasWriterReaderAndCollectorThatAreTheStoresChildrenInThisOrder)
{
    TemporaryStore store(withRoots(3));
    EXPECT_EQ(manager().getWriteThreadCount(), 3);
    ASSERT_THAT(StoreInside::writers(), SizeIs(3));
    ASSERT_THAT(StoreInside::readers(), SizeIs(3));
    ASSERT_THAT(collectors(), SizeIs(3));
    std::vector<const QObject*> ours;
    for (const QObject* const child : manager().children()) {
        if (dynamic_cast<const ZebDataBlockWriteThread*>(child) != nullptr ||
            dynamic_cast<const ZebDataBlockReadThread*>(child) != nullptr ||
            dynamic_cast<const ZebGarbageCollectorThread*>(child) != nullptr)
            ours.push_back(child);
    }
    std::vector<const QObject*> expected;
    for (int i = 0; i < 3; ++i) {
        expected.push_back(StoreInside::writers().at(i));
        expected.push_back(StoreInside::readers().at(i));
        expected.push_back(collectors().at(i));
        EXPECT_TRUE(StoreInside::writers().at(i)->isRunning());
        EXPECT_TRUE(StoreInside::readers().at(i)->isRunning());
        EXPECT_TRUE(collectors().at(i)->isRunning());
    }
    EXPECT_EQ(ours, expected);

    store.cleanUp();
    EXPECT_EQ(manager().getWriteThreadCount(), 0);
    EXPECT_THAT(StoreInside::readers(), IsEmpty());
    EXPECT_THAT(collectors(), IsEmpty());
    EXPECT_THAT(manager().children(), IsEmpty());
}

TEST(ZebDataBlockManagerThreads, EveryWritersErrorReachesTheHost)
{
    const TemporaryStore store(withRoots(2));
    std::mutex mutex;
    QStringList errors;
    const QObject receiver;
    QObject::connect(
        &manager(), &ZebDataBlockManager::writeError, &receiver,
        [&](const QString& text) {
            const std::lock_guard<std::mutex> guard(mutex);
            errors.append(text);
        },
        Qt::DirectConnection);
    FailingDisk disk(store.roots());
    std::vector<ZebDataReference> references;
    for (quint32 i = 0; i < 20; ++i)
        references.push_back(add(s_Block, i));
    for (const QString& root : store.roots()) {
        EXPECT_TRUE(waitUntil([&] {
            const std::lock_guard<std::mutex> guard(mutex);
            return !errors.filter(QStringLiteral("Cannot Open File ") + root).isEmpty();
        }));
    }
    disk.recover();
    manager().flush(true, ZebDataBlockManager::AllThreads);
    for (const ZebDataReference& reference : references)
        EXPECT_TRUE(StoreInside::hasFile(reference));
}

TEST(ZebDataBlockManagerThreads,
     AllCollectorsEndBeforeTheFirstReaderAndAllReadersBeforeTheFirstWriter)
{
    TemporaryStore store(withRoots(3));
    const Ends ends;
    store.cleanUp();
    EXPECT_EQ(ends.finished(), "cccrrrwww");
    EXPECT_EQ(ends.destroyed(), "cccrrrwww");
    EXPECT_THAT(ends.couldLock(), Each(true)) << "they are waited for with no lock held";
    EXPECT_THAT(ends.couldLock(), SizeIs(9));
}

TEST(ZebDataBlockManagerThreads, CleaningUpWritesWhatIsQueuedFirst)
{
    const FakeMemory memory;
    TemporaryStore store(withRoots(1));
    manager().flushMemory(true);
    std::vector<QString> files;
    {
        std::vector<ZebDataReference> references;
        for (quint32 i = 0; i < 100; ++i) {
            references.push_back(add(s_Block, i));
            files.push_back(StoreInside::fileOf(references.back()));
        }
    }
    store.cleanUp();
    for (const QString& file : files)
        EXPECT_TRUE(QFile::exists(file));
}

TEST(ZebDataBlockManagerThreads, TheHostHearsOfACacheSizeOf0WhileTheStoreIsStillSetUp)
{
    struct Update
    {
        qint64 size;
        bool initialized;
        int writers;
        bool canLockElsewhere;
    };
    std::vector<Update> updates;
    TemporaryStore store(withRoots(2));
    const QObject receiver;
    QObject::connect(
        &manager(), &ZebDataBlockManager::cacheSizeUpdate, &receiver,
        [&updates](qint64 size) {
            bool locked = false;
            std::thread([&locked] {
                locked = StoreInside::deleteLock().tryLock();
                if (locked)
                    StoreInside::deleteLock().unlock();
            }).join();
            updates.push_back(
                {size, manager().isInitialized(), manager().getWriteThreadCount(), locked});
        },
        Qt::DirectConnection);
    store.cleanUp();
    ASSERT_THAT(updates, SizeIs(1));
    EXPECT_EQ(updates.front().size, 0);
    EXPECT_TRUE(updates.front().initialized);
    EXPECT_EQ(updates.front().writers, 0);
    EXPECT_FALSE(updates.front().canLockElsewhere) << "told under the delete lock";
    manager().cleanUp();
    EXPECT_THAT(updates, SizeIs(1)) << "a store that is not set up stays silent";
}

TEST(ZebDataBlockManagerThreads, WithoutRootsTheHostHearsOfACacheSizeOf0AsWell)
{
    int updates = 0;
    TemporaryStore store(withRoots(0));
    const QObject receiver;
    QObject::connect(
        &manager(), &ZebDataBlockManager::cacheSizeUpdate, &receiver, [&updates] { ++updates; },
        Qt::DirectConnection);
    store.cleanUp();
    EXPECT_EQ(updates, 1);
}
