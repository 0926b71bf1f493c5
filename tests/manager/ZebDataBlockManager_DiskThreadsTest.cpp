// The disk threads of the store: which exist, in which order they end, and what an operation does
// whose thread has ended already.

#include "manager/ZebDataBlockManager.h"

#include "data/ZebConstAccessor.h"
#include "io/ZebDataBlockReadThread.h"
#include "io/ZebDataBlockWriteThread_Pattern1.h"
#include "io/ZebGarbageCollectorThread.h"
#include "support/DeleteLockProbe.h"
#include "support/FailingDisk.h"
#include "support/FakeMemory.h"
#include "support/Fatal.h"
#include "support/Manager.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"
#include "support/TestBytes.h"
#include "support/WaitUntil.h"

#include <QFile>
#include <QObject>
#include <QThread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

using StoreInside::collectors;
using testing::Each;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr int s_Block = 1000;
constexpr int s_LongWaitMs = 20000;

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

// Puts disk threads whose ends it watches in the place of those that the store has made, and keeps
// the order in which they end. They are watched from before their start, as connecting to the
// signals of a running thread is a race.
class WatchedThreads
{
public:
    explicit WatchedThreads(const QStringList& roots)
    {
        endThreads(collectors());
        endThreads(StoreInside::readers());
        endThreads(StoreInside::writers());
        for (const QString& root : roots) {
            StoreInside::writers().append(
                new ZebDataBlockWriteThread_Pattern1(root, 1, &manager()));
            StoreInside::readers().append(new ZebDataBlockReadThread(root, 1, 50, &manager()));
            collectors().append(new ZebGarbageCollectorThread(root, 1, &manager()));
            startWatched(StoreInside::writers().back(), 'w');
            startWatched(StoreInside::readers().back(), 'r');
            startWatched(collectors().back(), 'c');
        }
    }
    WatchedThreads(const WatchedThreads&) = delete;
    WatchedThreads& operator=(const WatchedThreads&) = delete;

    std::string finished() const { return m_Finished; }
    std::string destroyed() const { return m_Destroyed; }
    /// Whether each thread could take the delete lock as its last act.
    const std::vector<bool>& couldLock() const { return m_CouldLock; }

private:
    template <typename Thread>
    static void endThreads(QVector<Thread*>& threads)
    {
        for (Thread* const thread : qAsConst(threads)) {
            thread->closeDown();
            thread->wait();
            delete thread;
        }
        threads.clear();
    }

    void startWatched(QThread* thread, char kind)
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
        thread->start(QThread::InheritPriority);
    }

    QObject m_Receiver;
    std::mutex m_Mutex;
    std::string m_Finished;
    std::string m_Destroyed;
    std::vector<bool> m_CouldLock;
};

// A store whose disk threads end before the operation under test.
class ZebDataBlockManagerDiskThreadsEnded : public testing::Test
{
protected:
    // The message for a root whose threads have ended.
    static std::string noThreadFor(const ZebDataReference& reference)
    {
        return "Cannot find suitable cache reading thread 0 for " + reference.hash().toStdString();
    }

    TemporaryStore m_Store;
};

} // namespace

TEST(ZebDataBlockManagerDiskThreadsOfAStore,
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

TEST(ZebDataBlockManagerDiskThreadsOfAStore, TheErrorsOfEveryWriterAreReported)
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

TEST(ZebDataBlockManagerDiskThreadsOfAStore,
     AllCollectorsEndBeforeTheFirstReaderAndAllReadersBeforeTheFirstWriter)
{
    TemporaryStore store(withRoots(3));
    const WatchedThreads threads(store.roots());
    store.cleanUp();
    EXPECT_EQ(threads.finished(), "cccrrrwww");
    EXPECT_EQ(threads.destroyed(), "cccrrrwww");
    EXPECT_THAT(threads.couldLock(), Each(true)) << "they are waited for with no lock held";
    EXPECT_THAT(threads.couldLock(), SizeIs(9));
}

TEST(ZebDataBlockManagerDiskThreadsOfAStore, CleaningUpWritesAllQueuedBlocks)
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

TEST(ZebDataBlockManagerDiskThreadsOfAStore,
     CleaningUpReportsACacheSizeOf0WhileTheStoreIsStillSetUp)
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
            updates.push_back({size, manager().isInitialized(), manager().getWriteThreadCount(),
                               deleteLockIsFree()});
        },
        Qt::DirectConnection);
    store.cleanUp();
    ASSERT_THAT(updates, SizeIs(1));
    EXPECT_EQ(updates.front().size, 0);
    EXPECT_TRUE(updates.front().initialized);
    EXPECT_EQ(updates.front().writers, 0);
    EXPECT_FALSE(updates.front().canLockElsewhere) << "signalled under the delete lock";
    manager().cleanUp();
    EXPECT_THAT(updates, SizeIs(1)) << "a store that is not set up stays silent";
}

TEST(ZebDataBlockManagerDiskThreadsOfAStore, CleaningUpWithoutRootsReportsACacheSizeOf0)
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

TEST(ZebDataBlockManagerDiskThreadsOfAStore, EndingThemNeedsAStore)
{
    EXPECT_FATAL(StoreInside::stopAllIoThreads(), "Data Block Manager Not Initialized. Aborting");
}

// After their end

TEST_F(ZebDataBlockManagerDiskThreadsEnded, ALoadWhoseReaderHasEndedIsFatal)
{
    const ZebDataReference reference = add(s_Block, 1);
    manager().freeAllBlocks();
    EXPECT_FATAL(
        {
            StoreInside::readers().clear();
            reference.constAccessor();
        },
        noThreadFor(reference));
}

TEST_F(ZebDataBlockManagerDiskThreadsEnded, APreloadWhoseReaderHasEndedIsFatal)
{
    const ZebDataReference reference = add(s_Block, 1);
    manager().freeAllBlocks();
    EXPECT_FATAL(
        {
            StoreInside::readers().clear();
            reference.preload();
        },
        noThreadFor(reference));
}

TEST_F(ZebDataBlockManagerDiskThreadsEnded, AnAdmissionWhoseWriterHasEndedIsFatal)
{
    const ZebDataReference reference = add(s_Block, 1);
    const QByteArray bytes(1000, 'b');
    const ZebDataHash hash(bytes, ZebDataHash::Hash512);
    EXPECT_FATAL(
        {
            StoreInside::writers().clear();
            manager().addBlock(bytes, ZebModifyAccessor::Cached, true);
        },
        "Cannot find suitable cache reading thread 0 for " + hash.toString().toStdString());
}

TEST_F(ZebDataBlockManagerDiskThreadsEnded, AnEvictionWhoseWriterHasEndedIsFatal)
{
    const ZebDataReference reference = add(s_Block, 1);
    manager().flush();
    ASSERT_TRUE(StoreInside::forgetFile(reference));
    EXPECT_FATAL(
        {
            StoreInside::writers().clear();
            StoreInside::freeBlock(reference.hashPtr().data(), true, false);
        },
        noThreadFor(reference));
}
