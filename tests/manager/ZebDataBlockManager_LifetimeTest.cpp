// How the store comes into being, is cleaned up and set up again, and ends.

#include "manager/ZebDataBlockManager.h"

#include "data/ZebDataBlock.h"
#include "data/ZebDataReference.h"
#include "data/ZebThreadPoolManager.h"
#include "hash/ZebHashManager.h"
#include "support/CountedBlock.h"
#include "support/Fatal.h"
#include "support/MessageCapture.h"
#include "support/SettingsKit.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"
#include "support/ThreadWatch.h"
#include "support/ZebDataDeleteLocker.h"
#include "support/ZebStoredCall.h"
#include "support/ZebTdxLog.h"

#include <QDir>
#include <QFile>
#include <QSemaphore>
#include <QTemporaryDir>
#include <QThreadPool>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

namespace {

constexpr int s_DeadlineMs = 20000;
constexpr qint64 s_Gigabyte = 1024 * 1024 * 1024;

// A manager in addition to that of the process, for its construction and destruction.
class OwnManager : public ZebDataBlockManager
{
public:
    using ZebDataBlockManager::makeBlockLive;
};

ZebDataReference addCounted(const QByteArray& bytes, ZebModifyAccessor::Caching caching,
                            std::atomic<int>* deleted)
{
    return StoreInside::addBlock(new CountedBlock(bytes, deleted), caching, true);
}

} // namespace

TEST(ZebDataBlockManagerLifetime, ThereIsOneStoreForTheProcess)
{
    const MessageCapture messages;
    std::vector<ZebDataBlockManager*> seen(4, nullptr);
    std::vector<std::thread> threads;
    for (ZebDataBlockManager*& slot : seen)
        threads.emplace_back([&slot] { slot = &ZebDataBlockManager::instance(); });
    for (std::thread& thread : threads)
        thread.join();
    for (ZebDataBlockManager* const one : seen)
        EXPECT_EQ(one, &manager());
}

TEST(ZebDataBlockManagerLifetime, AFreshStoreHasItsDefaultsAndLogsThem)
{
    const Machine machine(8 * 1024 * 1024 + 3, 1);
    const MessageCapture quiet;
    manager();
    const MessageCapture messages;
    OwnManager fresh;
    const qint64 size = 2 * s_Gigabyte + 768;
    EXPECT_EQ(messages.debugLines(),
              QStringList({sizeLine(size, 2048), pendingLine(s_Gigabyte + 384, 1024),
                           targetLine(536870912, 512)}));
    for (const MessageCapture::Message& message : messages.messages())
        EXPECT_FALSE(message.m_HasContext);

    EXPECT_EQ(fresh.maxDataCacheSize(), size);
    EXPECT_EQ(ZebDataBlockManager::defaultCacheSize(), size);
    EXPECT_EQ(fresh.maxWritePendingSizeFactor(), 0.5F);
    EXPECT_EQ(fresh.targetFreeMemorySize(), 536870912);
    EXPECT_EQ(fresh.numBuckets(), 10);
    EXPECT_TRUE(fresh.cacheRoots().isEmpty());
    EXPECT_FALSE(fresh.isInitialized());
    EXPECT_FALSE(fresh.garbageCollecting());
    EXPECT_EQ(fresh.liveBytes(), 0);
    EXPECT_EQ(fresh.liveBlocks(), 0);
    EXPECT_EQ(StoreInside::blocksFreedCount(fresh).load(), -1);
    EXPECT_FALSE(StoreInside::requestPromotionEnabled(fresh).load());
    EXPECT_TRUE(StoreInside::subCache(fresh).isNull());
}

TEST(ZebDataBlockManagerLifetime, DefaultsCanBeQueried)
{
    const MessageCapture messages;
    EXPECT_EQ(ZebDataBlockManager::defaultMaxWritePendingSizeFactor(), 0.5F);
    EXPECT_EQ(manager().defaultTargetFreeMemorySize(), 0x20000000);
    const Machine machine(7, 1);
    EXPECT_EQ(ZebDataBlockManager::defaultCacheSize(), 7 * 1024 / 4);
}

TEST(ZebDataBlockManagerLifetime, WithUnreadableMemoryFiguresTheDefaultIsAQuarterOfTheGuess)
{
    const MessageCapture quiet;
    manager();
    const QTemporaryDir nothing;
    ZebMemoryStatus::setSourceRoot(nothing.path());
    const MessageCapture messages;
    const OwnManager fresh;
    ZebMemoryStatus::setSourceRoot(QString());
    EXPECT_EQ(fresh.maxDataCacheSize(), 2 * s_Gigabyte);
    EXPECT_EQ(messages.debugLines(),
              QStringList({line("ZebSystemMemory.cpp:165:[ !! ] Error retrieving memory "
                                "information."),
                           sizeLine(2 * s_Gigabyte, 2048), pendingLine(s_Gigabyte, 1024),
                           targetLine(536870912, 512)}));
}

TEST(ZebDataBlockManagerLifetime, TheRegistryIsBuiltDuringTheStoresConstruction)
{
    // In a process of its own neither exists yet.
    EXPECT_EXIT(
        {
            const MessageCapture messages;
            manager();
            const QStringList lines = messages.debugLines();
            ZebHashManager::instance();
            const bool inside = lines.size() == 4 && lines.at(2).startsWith(line("[TDX] Target")) &&
                                !lines.at(3).startsWith(line("[TDX]")) &&
                                messages.debugLines().size() == lines.size();
            std::exit(inside ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(ZebDataBlockManagerLifetime, AProcessMayEndWithTheStoreSetUp)
{
    EXPECT_EXIT(
        {
            const MessageCapture messages;
            // Built before the store and so destroyed after it; the reference is destroyed before
            // it.
            static const QTemporaryDir root;
            manager().setup({root.path()}, 1000);
            static ZebDataReference kept = manager().addBlock("kept", ZebModifyAccessor::Cached);
            kept.resolveWork();
            manager().addBlock("other", ZebModifyAccessor::DontCache);
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(ZebDataBlockManagerLifetime, TheEndOfAStoreTurnsTheLogOffAndDropsItsBlocks)
{
    const MessageCapture messages;
    ZebTdxLog::instance().setEnabled(true);
    std::atomic<int> deleted{0};
    // Outlives the store, since the end of a hash is reported to the process's store alone.
    const ZebSmartPointer<ZebDataHash> hash(new ZebDataHash("x", ZebDataHash::Hash512));
    hash->setDontCache(true);
    {
        OwnManager own;
        own.setup({}, 1000);
        own.makeBlockLive(hash.data(), new CountedBlock("x", &deleted));
        EXPECT_EQ(own.liveBytes(), 1);
        EXPECT_TRUE(ZebTdxLog::instance().enabled());
    }
    EXPECT_EQ(deleted, 1);
    EXPECT_FALSE(ZebTdxLog::instance().enabled());
    ZebTdxLog::instance().setEnabled(true);
}

TEST(ZebDataBlockManagerLifetime, CleanUpResetsTheStore)
{
    TemporaryStore store;
    const ZebDataReference reference = manager().addBlock("some bytes");
    reference.resolveWork();
    manager().addBlock("gone at once", ZebModifyAccessor::DontCache);
    EXPECT_EQ(StoreInside::blocksFreed(), 0);
    {
        const ZebDataDeleteLocker locker;
        StoreInside::subCache() = line("Sub");
    }
    store.cleanUp();
    EXPECT_EQ(manager().liveBytes(), 0);
    EXPECT_EQ(manager().liveBlocks(), 0);
    EXPECT_EQ(manager().maxDataCacheSize(), 0);
    EXPECT_EQ(manager().numBuckets(), 0);
    EXPECT_TRUE(manager().cacheRoots().isEmpty());
    EXPECT_FALSE(manager().garbageCollecting());
    EXPECT_FALSE(manager().isInitialized());
    EXPECT_TRUE(manager().subCache().isEmpty());
    EXPECT_EQ(StoreInside::blocksFreed(), -1);
}

TEST(ZebDataBlockManagerLifetime, AfterCleanUpWithoutReferencesNoHashIsManaged)
{
    TemporaryStore store;
    manager().addBlock("some bytes").resolveWork();
    store.cleanUp();
    EXPECT_EQ(manager().managedBlocks(), 0);
}

TEST(ZebDataBlockManagerLifetime, AfterCleanUpTheDefaultLimitDoesNotComeBack)
{
    const KeptSettings kept;
    const MessageCapture messages;
    manager().setup({}, 1000);
    manager().cleanUp();
    manager().setup({}, -1);
    EXPECT_EQ(manager().maxDataCacheSize(), 0);
    manager().cleanUp();
}

TEST(ZebDataBlockManagerLifetime, CleanUpLeavesTheOtherSettingsAlone)
{
    const KeptSettings kept;
    const MessageCapture messages;
    manager().setup({}, 8 * 1024 * 1024);
    manager().setMaxWritePendingSizeFactor(0.75F);
    manager().setTargetFreeMemorySize(12345);
    std::atomic<bool>& promotion = StoreInside::requestPromotionEnabled();
    promotion = true;
    manager().cleanUp();
    EXPECT_EQ(manager().maxWritePendingSizeFactor(), 0.75F);
    EXPECT_EQ(manager().targetFreeMemorySize(), 12345);
    EXPECT_EQ(StoreInside::writePendingLimit(), 6 * 1024 * 1024);
    EXPECT_TRUE(promotion.load());
    promotion = false;
}

TEST(ZebDataBlockManagerLifetime, CleanUpOfAStoreThatIsNotSetUpChangesNothing)
{
    const KeptSettings kept;
    manager().setMaxDataCacheSize(777);
    const MessageCapture messages;
    int signalled = 0;
    QObject context;
    QObject::connect(&manager(), &ZebDataBlockManager::allFreeBlocksFlushedChanged, &context,
                     [&signalled] { ++signalled; });
    manager().setAllFreeBlocksFlushed(true);
    manager().cleanUp(true);
    EXPECT_EQ(manager().maxDataCacheSize(), 777);
    EXPECT_TRUE(manager().allFreeBlocksFlushed());
    manager().setAllFreeBlocksFlushed(false);
    EXPECT_EQ(signalled, 2);
    EXPECT_TRUE(messages.messages().isEmpty());
}

TEST(ZebDataBlockManagerLifetime, CleanUpDeletesEveryBlockOnce)
{
    std::atomic<int> deleted{0};
    TemporaryStore store;
    const ZebDataReference one = addCounted("one", ZebModifyAccessor::Cached, &deleted);
    const ZebDataReference two = addCounted("two", ZebModifyAccessor::DontCache, &deleted);
    EXPECT_EQ(deleted, 0);
    store.cleanUp();
    EXPECT_EQ(deleted, 2);
    store.cleanUp();
    EXPECT_EQ(deleted, 2);
}

TEST(ZebDataBlockManagerLifetime, TheStoreMayBeSetUpAgainAfterCleanUp)
{
    TemporaryStore store;
    store.cleanUp();
    store.setupAgain();
    EXPECT_TRUE(manager().isInitialized());
    EXPECT_EQ(manager().cacheRoots(), store.roots());
    const ZebDataReference reference = manager().addBlock("again");
    EXPECT_TRUE(reference.isInMemory());
    EXPECT_EQ(manager().liveBytes(), 5);
}

TEST(ZebDataBlockManagerLifetime, CleanUpClearsTheFlagAndSignalsItAtTheEnd)
{
    TemporaryStore store;
    manager().addBlock("bytes").resolveWork();
    manager().setAllFreeBlocksFlushed(true);
    int signalled = 0;
    QObject context;
    QObject::connect(&manager(), &ZebDataBlockManager::allFreeBlocksFlushedChanged, &context,
                     [&signalled](bool flushed) {
                         ++signalled;
                         EXPECT_FALSE(flushed);
                         EXPECT_FALSE(manager().allFreeBlocksFlushed());
                         EXPECT_FALSE(manager().isInitialized());
                         EXPECT_EQ(manager().liveBlocks(), 0);
                         EXPECT_EQ(manager().maxDataCacheSize(), 0);
                     });
    store.cleanUp();
    EXPECT_EQ(signalled, 1);
    EXPECT_FALSE(manager().allFreeBlocksFlushed());

    // A flag that is clear already is no change.
    store.setupAgain();
    store.cleanUp();
    EXPECT_EQ(signalled, 1);
}

TEST(ZebDataBlockManagerLifetime, CleanUpHandlesPendingEventsOnRequest)
{
    const MessageCapture messages;
    bool handled = false;
    QObject context;
    manager().setup({}, 1000);
    QMetaObject::invokeMethod(
        &context,
        [&handled] {
            handled = true;
            EXPECT_FALSE(manager().isInitialized());
        },
        Qt::QueuedConnection);
    manager().cleanUp(false);
    EXPECT_FALSE(handled);
    manager().setup({}, 1000);
    manager().cleanUp(true);
    EXPECT_TRUE(handled);
}

TEST(ZebDataBlockManagerLifetime, CleanUpWaitsForTheGlobalPoolAtItsEnd)
{
    const MessageCapture messages;
    const ThreadWatch cleaning(ThreadWatch::currentThread());
    std::atomic<bool> returned{false};
    QFuture<bool> task;
    QObject context;
    manager().setup({}, 1000);
    manager().setAllFreeBlocksFlushed(true);
    // The task is started late, after blocks and settings were dropped.
    QObject::connect(&manager(), &ZebDataBlockManager::allFreeBlocksFlushedChanged, &context,
                     [&](bool) {
                         task = ZebStoredCall::start<bool>(QThreadPool::globalInstance(), [&] {
                             return cleaning.standsStill() && !returned.load();
                         });
                     });
    manager().cleanUp();
    returned.store(true);
    EXPECT_TRUE(task.result()) << "the clean-up returned before the task had ended";
}

TEST(ZebDataBlockManagerLifetime, ATaskOfTheGlobalPoolStillFindsTheStoreSetUp)
{
    const MessageCapture messages;
    const ThreadWatch cleaning(ThreadWatch::currentThread());
    std::atomic<bool> returned{false};
    QSemaphore begun;
    manager().setup({}, 1000);
    const QFuture<bool> task = ZebStoredCall::start<bool>(QThreadPool::globalInstance(), [&] {
        begun.release();
        return cleaning.standsStill() && !returned.load() && manager().isInitialized();
    });
    begun.acquire();
    manager().cleanUp();
    returned.store(true);
    EXPECT_TRUE(task.result()) << "the blocks were dropped before the task had ended";
}

TEST(ZebDataBlockManagerLifetime, CleanUpDoesNotWaitForTheHashingPool)
{
    const MessageCapture messages;
    QThreadPool* const pool =
        ZebThreadPoolManager::instance().threadPool(ZebThreadPoolManager::HashingThreadPool);
    QSemaphore begun;
    QSemaphore returned;
    const QFuture<bool> task = ZebStoredCall::start<bool>(pool, [&] {
        begun.release();
        return returned.tryAcquire(1, s_DeadlineMs);
    });
    begun.acquire();
    manager().setup({}, 1000);
    manager().cleanUp();
    returned.release();
    EXPECT_TRUE(task.result()) << "the clean-up waited for the task";
}
