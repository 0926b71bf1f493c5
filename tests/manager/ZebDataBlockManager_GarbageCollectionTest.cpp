// The store's side of garbage collection: which files are removed, the switch, the environment, and
// the bracket around a pass. A single pass: ZebGarbageCollectorThreadTest. What is reported to the
// host: ZebDataBlockManager_GarbageCollectionReportsTest.

#include "manager/ZebDataBlockManager.h"

#include "hash/ZebHashManager.h"
#include "support/BlockedThread.h"
#include "support/CollectedStore.h"
#include "support/DeleteLockProbe.h"
#include "support/Fatal.h"
#include "support/StoreInside.h"
#include "support/ThreadWatch.h"
#include "support/WaitUntil.h"

#include <QFile>
#include <QMutexLocker>
#include <QWaitCondition>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <limits>
#include <vector>

#include <sys/syscall.h>
#include <sys/types.h>

using StoreInside::collectors;
using StoreInside::passesRunning;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int s_Block = 1000;

const char* const s_Variable = "ZEBA_TDX_GARBAGE_COLLECTION_DISABLED";
const char* const s_StartBlocked = "[TDX] Start garbage collection blocked by env";
const char* const s_StopBlocked = "[TDX] Stop garbage collection blocked by env";
const char* const s_NotInitialized = "Data Block Manager Not Initialized. Aborting";

// Sets the environment variable for the length of a scope.
class BlockedByEnvironment
{
public:
    explicit BlockedByEnvironment(const QByteArray& value = "1") { qputenv(s_Variable, value); }
    ~BlockedByEnvironment() { end(); }
    static void end() { qunsetenv(s_Variable); }
};

int changes()
{
    const QMutexLocker locker(&StoreInside::collectionMutex());
    return StoreInside::collectionChanges();
}

// Waits until every collector of the store has polled once more from beginning to end. A poll
// begins with the delete lock and ends in a sleep.
void waitForPoll()
{
    std::vector<pid_t> polling;
    StoreInside::deleteLock().lock();
    EXPECT_TRUE(waitUntil([&polling] {
        polling.clear();
        // The name of every thread of a class without a meta-object.
        for (const pid_t thread : ThreadWatch::threadsNamed("QThread")) {
            if (ThreadWatch(thread).isWaitingFor(StoreInside::deleteLock()))
                polling.push_back(thread);
        }
        return polling.size() == static_cast<std::size_t>(collectors().size());
    }));
    StoreInside::deleteLock().unlock();
    for (const pid_t thread : polling)
        EXPECT_TRUE(
            waitUntil([thread] { return ThreadWatch(thread).isInCall(SYS_clock_nanosleep); }));
}

class ZebDataBlockManagerGarbageCollection : public CollectedStore
{
protected:
    ZebDataBlockManagerGarbageCollection() : CollectedStore(1) {}
    explicit ZebDataBlockManagerGarbageCollection(int roots) : CollectedStore(roots) {}
};

class ZebDataBlockManagerGarbageCollectionThreeRoots : public ZebDataBlockManagerGarbageCollection
{
protected:
    ZebDataBlockManagerGarbageCollectionThreeRoots() : ZebDataBlockManagerGarbageCollection(3) {}
};

} // namespace

// Files

TEST_F(ZebDataBlockManagerGarbageCollectionThreeRoots, OrphanedFilesAreRemovedAndTheOthersStay)
{
    manager().startGarbageCollection();
    std::vector<ZebDataReference> references;
    for (quint32 i = 0; i < 40; ++i)
        references.push_back(add(s_Block, i));
    manager().flush(true);
    QStringList dropped;
    for (int i = 0; i < 20; ++i) {
        dropped.append(fileOf(references.back()));
        EXPECT_TRUE(QFile::exists(dropped.back()));
        references.pop_back();
    }
    for (const QString& file : dropped)
        EXPECT_TRUE(isRemoved(file)) << file.toStdString();
    for (const ZebDataReference& reference : references)
        EXPECT_TRUE(QFile::exists(fileOf(reference)));
}

TEST_F(ZebDataBlockManagerGarbageCollectionThreeRoots, ExactlyTheFilesOfLiveHashesStay)
{
    manager().startGarbageCollection();
    std::vector<ZebDataReference> references;
    for (quint32 i = 0; i < 60; ++i)
        references.push_back(add(s_Block, i));
    for (int i = 0; i < 20; ++i)
        references.erase(references.begin() + i);
    manager().flush(true);
    waitForPass();
    const QStringList names = blockFileNames();
    EXPECT_EQ(names.size(), ZebHashManager::instance().hashCount());
    EXPECT_EQ(names.size(), 40);
    for (const QString& name : names)
        EXPECT_TRUE(ZebHashManager::instance().isHashLive(name)) << name.toStdString();
}

TEST_F(ZebDataBlockManagerGarbageCollection, AnEvictedBlockWithAReferenceKeepsItsFile)
{
    const ZebDataReference reference = add(s_Block, 1);
    manager().flush(true);
    manager().startGarbageCollection();
    manager().freeAllBlocks();
    waitForPass();
    EXPECT_TRUE(QFile::exists(fileOf(reference)));
    EXPECT_TRUE(holdsTestBytes(reference, s_Block, 1));
}

TEST_F(ZebDataBlockManagerGarbageCollection,
       UnexpectedFilesStayUncountedAndFilesOfUnknownHashesAreRemoved)
{
    const QString other = write("a file of the host's");
    const QString unknown = write(deadName(1));
    manager().startGarbageCollection();
    EXPECT_TRUE(isRemoved(unknown));
    waitForPass();
    EXPECT_TRUE(QFile::exists(other));
    EXPECT_EQ(manager().currentCacheSizeInBytes(), 0);
}

TEST_F(ZebDataBlockManagerGarbageCollection, WithoutASubCacheEveryFileStaysAndTheSizeIs0)
{
    manager().setSubCache(QString());
    manager().startGarbageCollection();
    QString file;
    {
        const ZebDataReference reference = add(s_Block, 1);
        manager().flush(true);
        file = manager().getBlockDestination(QString(), reference.hash());
    }
    ASSERT_TRUE(QFile::exists(file));
    freeABlock();
    manager().collectGarbage(nullptr);
    waitForPoll();
    EXPECT_TRUE(QFile::exists(file));
    EXPECT_EQ(manager().currentCacheSizeInBytes(), 0);
}

TEST_F(ZebDataBlockManagerGarbageCollection, WithTheCollectionOffNothingIsRemoved)
{
    const QString file = write(deadName(1));
    freeABlock();
    manager().collectGarbage(nullptr);
    waitForPoll();
    EXPECT_TRUE(QFile::exists(file));
}

// The switch

TEST_F(ZebDataBlockManagerGarbageCollection, EachSwitchIsCounted)
{
    const int before = changes();
    EXPECT_FALSE(manager().garbageCollecting());
    manager().startGarbageCollection();
    EXPECT_TRUE(manager().garbageCollecting());
    manager().startGarbageCollection();
    EXPECT_TRUE(manager().garbageCollecting());
    EXPECT_EQ(changes(), before + 2);
    manager().stopGarbageCollection();
    EXPECT_FALSE(manager().garbageCollecting());
    EXPECT_EQ(changes(), before + 3);
    manager().stopGarbageCollection();
    EXPECT_EQ(changes(), before + 3) << "it was off already";
    StoreInside::collectionChanges() = std::numeric_limits<int>::max();
    manager().startGarbageCollection();
    EXPECT_EQ(changes(), std::numeric_limits<int>::min());
}

TEST_F(ZebDataBlockManagerGarbageCollection, CleaningUpSwitchesItOff)
{
    manager().startGarbageCollection();
    const ZebDataReference reference = add(s_Block, 1);
    m_Store.cleanUp();
    EXPECT_FALSE(manager().garbageCollecting());
    EXPECT_THAT(collectors(), IsEmpty());
    EXPECT_EQ(manager().currentCacheSizeInBytes(), 0);
    m_Store.setupAgain();
    EXPECT_FALSE(manager().garbageCollecting());
    EXPECT_EQ(manager().subCache(), QString());
}

TEST_F(ZebDataBlockManagerGarbageCollection, WhileItIsOnTheSubCacheCannotChange)
{
    manager().startGarbageCollection();
    manager().setSubCache("Other");
    EXPECT_EQ(manager().subCache(), subCache());
    manager().stopGarbageCollection();
    manager().setSubCache("Other");
    EXPECT_EQ(manager().subCache(), QString("Other"));
    EXPECT_EQ(collectors().front()->subCache(), QString("Other"));
}

TEST_F(ZebDataBlockManagerGarbageCollection, SwitchingItOffDropsWaitingPreloadsOnlyIfItWasOn)
{
    const ZebDataReference reference = add(s_Block, 1);
    manager().flush(true);
    manager().freeAllBlocks();
    // A reader that is never started keeps its requests.
    ZebDataBlockReadThread idle(m_Store.roots().front(), 10, 50, nullptr);
    const auto withIdleReader = [&idle](const std::function<void()>& action) {
        auto& readers = StoreInside::readers();
        const auto before = readers;
        readers = {&idle};
        action();
        readers = before;
    };
    reference.hashPtr();
    idle.request(reference.hashPtr().data(), ZebDataBlockManager::PreloadNormal);
    withIdleReader([] { manager().stopGarbageCollection(); });
    EXPECT_EQ(idle.requests(), 1);
    manager().startGarbageCollection();
    withIdleReader([] { manager().stopGarbageCollection(); });
    EXPECT_EQ(idle.requests(), 0);
    EXPECT_TRUE(reference.hashPtr()->isPreloading()) << "kept: it counts as on its way";
}

TEST_F(ZebDataBlockManagerGarbageCollection, TheSwitchAndAPassForTheHostNeedAStore)
{
    m_Store.cleanUp();
    EXPECT_FATAL(manager().startGarbageCollection(), s_NotInitialized);
    EXPECT_FATAL(manager().collectGarbage(nullptr), s_NotInitialized);
    EXPECT_FATAL(
        {
            StoreInside::collecting() = true;
            manager().stopGarbageCollection();
        },
        s_NotInitialized);
    // While it is off, the call needs no store.
    manager().stopGarbageCollection();
}

// The environment

TEST_F(ZebDataBlockManagerGarbageCollection, TheEnvironmentKeepsItFromBeingSwitchedOn)
{
    const QString file = write(deadName(1));
    const int before = changes();
    for (const char* const value : {"1", "0", ""}) {
        const BlockedByEnvironment blocked(value);
        m_Store.messages().clear();
        manager().startGarbageCollection();
        EXPECT_FALSE(manager().garbageCollecting());
        EXPECT_THAT(m_Store.messages().debugLines(), ElementsAre(QString(s_StartBlocked)));
        EXPECT_FALSE(m_Store.messages().messages().front().m_HasContext);
    }
    EXPECT_EQ(changes(), before);
    freeABlock();
    manager().collectGarbage(nullptr);
    waitForPoll();
    EXPECT_TRUE(QFile::exists(file));
    manager().startGarbageCollection();
    EXPECT_TRUE(manager().garbageCollecting()) << "asked anew each time";
}

TEST_F(ZebDataBlockManagerGarbageCollection, TheEnvironmentKeepsItFromBeingSwitchedOff)
{
    manager().startGarbageCollection();
    const int before = changes();
    const BlockedByEnvironment blocked("");
    m_Store.messages().clear();
    manager().stopGarbageCollection();
    EXPECT_TRUE(manager().garbageCollecting());
    EXPECT_EQ(changes(), before);
    EXPECT_THAT(m_Store.messages().debugLines(), ElementsAre(QString(s_StopBlocked)));

    m_Store.cleanUp();
    EXPECT_TRUE(manager().garbageCollecting()) << "kept: it stays on, even without a store";
    EXPECT_EQ(m_Store.messages().count(s_StopBlocked), 2);
    m_Store.setupAgain();
    BlockedByEnvironment::end();
    manager().stopGarbageCollection();
    EXPECT_FALSE(manager().garbageCollecting());
}

TEST_F(ZebDataBlockManagerGarbageCollection, TheEnvironmentIsCheckedFirst)
{
    m_Store.cleanUp();
    const BlockedByEnvironment blocked;
    m_Store.messages().clear();
    manager().startGarbageCollection();
    manager().stopGarbageCollection();
    EXPECT_THAT(m_Store.messages().debugLines(),
                ElementsAre(QString(s_StartBlocked), QString(s_StopBlocked)))
        << "neither needs a store, nor a collection that is on";
}

// The bracket of a pass

TEST_F(ZebDataBlockManagerGarbageCollection, APassBeginsOnlyWhileTheCollectionIsOn)
{
    EXPECT_FALSE(manager().garbageCollectingThreadStarted());
    EXPECT_EQ(passesRunning(), 0);
    manager().startGarbageCollection();
    waitForPass();
    EXPECT_TRUE(manager().garbageCollectingThreadStarted());
    EXPECT_EQ(passesRunning(), 1);
    manager().garbageCollectingThreadFinished();
    EXPECT_EQ(passesRunning(), 0);
}

TEST_F(ZebDataBlockManagerGarbageCollection, SwitchingItOffWaitsForEveryPassWithTheDeleteLockHeld)
{
    manager().startGarbageCollection();
    waitForPass();
    ASSERT_TRUE(manager().garbageCollectingThreadStarted());
    ASSERT_TRUE(manager().garbageCollectingThreadStarted());
    BlockedThread stopping([] { manager().stopGarbageCollection(); });
    QWaitCondition& passesEnded = StoreInside::collectionDone();
    EXPECT_TRUE(stopping.waitsFor(passesEnded));
    EXPECT_FALSE(manager().garbageCollecting());
    EXPECT_FALSE(manager().garbageCollectingThreadStarted()) << "no other pass begins";
    EXPECT_FALSE(StoreInside::deleteLock().tryLock());
    passesEnded.wakeAll();
    EXPECT_TRUE(stopping.waitsFor(passesEnded)) << "woken with passes running";
    manager().garbageCollectingThreadFinished();
    EXPECT_TRUE(stopping.waitsFor(passesEnded)) << "one is left";
    manager().garbageCollectingThreadFinished();
    EXPECT_TRUE(stopping.ends());
    EXPECT_EQ(passesRunning(), 0);
    EXPECT_TRUE(deleteLockIsFree());
}
