// The store's side of garbage collection: what becomes of files, the switch, the environment, and
// the bracket around a pass. What one pass does stands in ZebGarbageCollectorThreadTest, what the
// host hears of it in ZebDataBlockManagerGarbageReportsTest.

#include "manager/ZebDataBlockManager.h"

#include "hash/ZebHashManager.h"
#include "support/CollectedStore.h"
#include "support/Fatal.h"
#include "support/WaitUntil.h"

#include <QFile>
#include <QWaitCondition>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <limits>
#include <thread>
#include <vector>

ZEBTDX_ACCESS(CollectionChangesTag, ZebDataBlockManager, int ZebDataBlockManager::*,
              m_GarbageCollectionChanges)
ZEBTDX_ACCESS(CollectionDoneTag, ZebDataBlockManager, QWaitCondition ZebDataBlockManager::*,
              m_GarbageCollectionDone)

using CollectionInside::collectors;
using CollectionInside::passesRunning;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int s_Block = 1000;

// How long something that must not happen is waited for.
constexpr int s_HeldOffMs = 50;

const char* const s_Variable = "ZEBA_TDX_GARBAGE_COLLECTION_DISABLED";
const char* const s_StartBlocked = "[TDX] Start garbage collection blocked by env";
const char* const s_StopBlocked = "[TDX] Stop garbage collection blocked by env";
const char* const s_NotInitialized = "Data Block Manager Not Initialized. Aborting";

// Has the environment variable exist for the length of a scope.
class BlockedByEnvironment
{
public:
    explicit BlockedByEnvironment(const QByteArray& value = "1") { qputenv(s_Variable, value); }
    ~BlockedByEnvironment() { end(); }
    static void end() { qunsetenv(s_Variable); }
};

int changes()
{
    return StoreInside::manager().*privateMember(CollectionChangesTag());
}

class ZebDataBlockManagerGarbage : public CollectedStore
{
protected:
    ZebDataBlockManagerGarbage() : CollectedStore(1) {}
    explicit ZebDataBlockManagerGarbage(int roots) : CollectedStore(roots) {}
};

class ZebDataBlockManagerGarbageThreeRoots : public ZebDataBlockManagerGarbage
{
protected:
    ZebDataBlockManagerGarbageThreeRoots() : ZebDataBlockManagerGarbage(3) {}
};

} // namespace

// What becomes of files

TEST_F(ZebDataBlockManagerGarbageThreeRoots, TheFileOfADroppedContentGoesAndTheOthersStay)
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
        EXPECT_TRUE(goes(file)) << file.toStdString();
    for (const ZebDataReference& reference : references)
        EXPECT_TRUE(QFile::exists(fileOf(reference)));
}

TEST_F(ZebDataBlockManagerGarbageThreeRoots, WhileBlocksLiveTheFilesAreThoseOfTheLiveHashes)
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

TEST_F(ZebDataBlockManagerGarbage, AnEvictedBlockThatIsStillReferredToKeepsItsFile)
{
    const ZebDataReference reference = add(s_Block, 1);
    manager().flush(true);
    manager().startGarbageCollection();
    manager().freeAllBlocks();
    waitForPass();
    EXPECT_TRUE(QFile::exists(fileOf(reference)));
    EXPECT_TRUE(holdsTestBytes(reference, s_Block, 1));
}

TEST_F(ZebDataBlockManagerGarbage, FilesWithOtherNamesStayAndDoNotCountAndUnknownHashesGo)
{
    const QString other = write("a file of the host's");
    const QString unknown = write(deadName(1));
    manager().startGarbageCollection();
    EXPECT_TRUE(goes(unknown));
    waitForPass();
    EXPECT_TRUE(QFile::exists(other));
    EXPECT_EQ(manager().currentCacheSizeInBytes(), 0);
}

TEST_F(ZebDataBlockManagerGarbage, WithoutASubCacheEveryFileStaysAndTheSizeIs0)
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
    EXPECT_FALSE(waitUntil([&] { return !QFile::exists(file); }, 3 * s_HeldOffMs));
    EXPECT_EQ(manager().currentCacheSizeInBytes(), 0);
}

TEST_F(ZebDataBlockManagerGarbage, WithTheCollectionOffNothingIsRemoved)
{
    const QString file = write(deadName(1));
    freeABlock();
    manager().collectGarbage(nullptr);
    EXPECT_FALSE(waitUntil([&] { return !QFile::exists(file); }, 3 * s_HeldOffMs));
}

// The switch

TEST_F(ZebDataBlockManagerGarbage, EachSwitchIsCounted)
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
    manager().*privateMember(CollectionChangesTag()) = std::numeric_limits<int>::max();
    manager().startGarbageCollection();
    EXPECT_EQ(changes(), std::numeric_limits<int>::min());
}

TEST_F(ZebDataBlockManagerGarbage, CleaningUpSwitchesItOff)
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

TEST_F(ZebDataBlockManagerGarbage, WhileItIsOnTheSubCacheStays)
{
    manager().startGarbageCollection();
    manager().setSubCache("Other");
    EXPECT_EQ(manager().subCache(), subCache());
    manager().stopGarbageCollection();
    manager().setSubCache("Other");
    EXPECT_EQ(manager().subCache(), QString("Other"));
    EXPECT_EQ(collectors().front()->subCache(), QString("Other"));
}

TEST_F(ZebDataBlockManagerGarbage, SwitchingItOffDropsPreloadsThatWaitButOnlyIfItWasOn)
{
    const ZebDataReference reference = add(s_Block, 1);
    manager().flush(true);
    manager().freeAllBlocks();
    // A reader that is never started keeps what it is asked for.
    ZebDataBlockReadThread idle(m_Store.roots().front(), 10, 50, nullptr);
    const auto withIdleReader = [&idle](const std::function<void()>& action) {
        auto& readers = manager().*privateMember(StoreReadersTag());
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

TEST_F(ZebDataBlockManagerGarbage, TheSwitchAndAPassForTheHostNeedAStore)
{
    m_Store.cleanUp();
    EXPECT_FATAL(manager().startGarbageCollection(), s_NotInitialized);
    EXPECT_FATAL(manager().collectGarbage(nullptr), s_NotInitialized);
    EXPECT_FATAL(
        {
            manager().*privateMember(StoreCollectingTag()) = true;
            manager().stopGarbageCollection();
        },
        s_NotInitialized);
    // Off, there is nothing that needs one.
    manager().stopGarbageCollection();
}

// The environment

TEST_F(ZebDataBlockManagerGarbage, TheEnvironmentKeepsItFromBeingSwitchedOn)
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
    EXPECT_FALSE(waitUntil([&] { return !QFile::exists(file); }, 3 * s_HeldOffMs));
    manager().startGarbageCollection();
    EXPECT_TRUE(manager().garbageCollecting()) << "asked anew each time";
}

TEST_F(ZebDataBlockManagerGarbage, TheEnvironmentKeepsItFromBeingSwitchedOff)
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

TEST_F(ZebDataBlockManagerGarbage, TheEnvironmentIsAskedBeforeAnythingElse)
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

// The bracket

TEST_F(ZebDataBlockManagerGarbage, APassBeginsOnlyWhileTheCollectionIsOn)
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

TEST_F(ZebDataBlockManagerGarbage, SwitchingItOffWaitsForEveryPassWithTheDeleteLockHeld)
{
    manager().startGarbageCollection();
    waitForPass();
    ASSERT_TRUE(manager().garbageCollectingThreadStarted());
    ASSERT_TRUE(manager().garbageCollectingThreadStarted());
    std::atomic<bool> stopped{false};
    std::thread stopping([&stopped] {
        manager().stopGarbageCollection();
        stopped = true;
    });
    EXPECT_TRUE(waitUntil([] { return !manager().garbageCollecting(); }));
    EXPECT_FALSE(manager().garbageCollectingThreadStarted()) << "no other pass begins";
    EXPECT_FALSE(StoreInside::deleteLock().tryLock());
    (StoreInside::manager().*privateMember(CollectionDoneTag())).wakeAll();
    EXPECT_FALSE(waitUntil([&stopped] { return stopped.load(); }, s_HeldOffMs)) << "a stray wake";
    manager().garbageCollectingThreadFinished();
    EXPECT_FALSE(waitUntil([&stopped] { return stopped.load(); }, s_HeldOffMs)) << "one is left";
    manager().garbageCollectingThreadFinished();
    stopping.join();
    EXPECT_EQ(passesRunning(), 0);
    EXPECT_TRUE(StoreInside::deleteLock().tryLock());
    StoreInside::deleteLock().unlock();
}
