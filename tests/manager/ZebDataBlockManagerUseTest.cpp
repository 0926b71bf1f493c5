#include "manager/ZebDataBlockManager.h"

#include "manager/ResidencyKit.h"
#include "support/Fatal.h"
#include "support/MessageCapture.h"
#include "support/TemporaryStore.h"
#include "support/ZebDataDeleteLocker.h"

#include <QSemaphore>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

ZEBTDX_ACCESS(DeleteMutexTag, ZebDataBlockManager, ZebTdxMutex ZebDataBlockManager::*,
              m_DeleteMutex)

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int s_DeadlineMs = 20000;
constexpr int s_HeldOffMs = 100;

bool runsUnderTheDeleteLock(int waitMs, const std::function<void()>& operation)
{
    QSemaphore started;
    QSemaphore ended;
    std::thread thread;
    bool through = false;
    {
        const ZebDataDeleteLocker locker;
        thread = std::thread([&] {
            started.release();
            operation();
            ended.release();
        });
        started.acquire();
        through = ended.tryAcquire(1, waitMs);
    }
    if (!through) {
        EXPECT_TRUE(ended.tryAcquire(1, s_DeadlineMs));
    }
    thread.join();
    return through;
}

// Whether `operation`, on another thread, is held off while this one holds the delete lock.
bool isHeldOff(const std::function<void()>& operation)
{
    return !runsUnderTheDeleteLock(s_HeldOffMs, operation);
}

bool comesThrough(const std::function<void()>& operation)
{
    return runsUnderTheDeleteLock(s_DeadlineMs, operation);
}

// The process that ends tells the address that its message must name.
void tellAddress(const ZebDataHash* hash)
{
    std::fprintf(stderr, "{address:%llu}",
                 static_cast<unsigned long long>(reinterpret_cast<quintptr>(hash)));
}

// Matches the output of a process that ended with `before`, the told address and `after`.
auto namesTheAddress(const std::string& before, const std::string& after)
{
    return ::testing::Truly([before, after](const std::string& output) {
        const std::string mark = "{address:";
        const size_t begin = output.find(mark);
        if (begin == std::string::npos)
            return false;
        const size_t digits = begin + mark.size();
        const std::string address = output.substr(digits, output.find('}', digits) - digits);
        return output.find(fatalText(before + address + after)) != std::string::npos;
    });
}

} // namespace

TEST(ZebDataBlockManagerUse, ADuplicateIsNoUse)
{
    const TemporaryStore store;
    const ThreeBlocks blocks;
    for (const bool immediate : {true, false}) {
        manager().addBlock("1", ZebModifyAccessor::Cached, immediate).resolveWork();
        EXPECT_THAT(newestToOldest(), ElementsAre(blocks.three(), blocks.two(), blocks.one()));
    }
    EXPECT_EQ(manager().liveBytes(), 6);
}

TEST(ZebDataBlockManagerUse, ADuplicateOfALockedBlockLeavesItLocked)
{
    const TemporaryStore store;
    const ThreeBlocks blocks;
    const ZebConstAccessor accessor = blocks.m_One.constAccessor();
    manager().addBlock("1", ZebModifyAccessor::Cached, true);
    EXPECT_TRUE(blockIsLocked(blocks.one()));
    EXPECT_EQ(manager().liveBlocks(), 2);
}

TEST(ZebDataBlockManagerUse, LockingADontCacheBlockDoesNothingAlsoBeforeSetUp)
{
    const MessageCapture messages;
    ASSERT_FALSE(manager().isInitialized());
    const Hash hash = dontCacheHash("identity");
    manager().setAllFreeBlocksFlushed(true);
    // Returned from before any lock is asked for.
    EXPECT_TRUE(comesThrough([&] { lockBlock(hash.data()); }));
    EXPECT_TRUE(comesThrough([&] { unlockBlock(hash.data()); }));
    EXPECT_TRUE(comesThrough([&] { blockUsed(hash.data()); }));
    EXPECT_TRUE(manager().allFreeBlocksFlushed());
    manager().setAllFreeBlocksFlushed(false);
}

TEST(ZebDataBlockManagerUse, OperationsOnResidencyTakeTheDeleteLock)
{
    const TemporaryStore store;
    const ThreeBlocks blocks;
    const Hash fresh = hashOf("fresh");
    EXPECT_TRUE(isHeldOff([&] { lockBlock(blocks.one()); }));
    EXPECT_TRUE(isHeldOff([&] { unlockBlock(blocks.one()); }));
    EXPECT_TRUE(isHeldOff([&] { blockUsed(blocks.one()); }));
    EXPECT_TRUE(isHeldOff([&] { blockIsLocked(blocks.one()); }));
    EXPECT_TRUE(isHeldOff([&] { manager().isInMemory(blocks.one()); }));
    EXPECT_TRUE(isHeldOff([&] { manager().blockSize(blocks.one()); }));
    EXPECT_TRUE(
        isHeldOff([&] { makeBlockLive(fresh.data(), new ZebDataBlock(QByteArray("fresh"))); }));
}

TEST(ZebDataBlockManagerUse, ReadOutsTakeNoDeleteLock)
{
    const TemporaryStore store;
    const ThreeBlocks blocks;
    EXPECT_TRUE(comesThrough([] { EXPECT_EQ(manager().liveBlocks(), 3); }));
    EXPECT_TRUE(comesThrough([] { EXPECT_EQ(manager().liveBytes(), 6); }));
    EXPECT_TRUE(comesThrough([] { EXPECT_EQ(manager().managedBlocks(), 3); }));
    EXPECT_TRUE(comesThrough([] { EXPECT_TRUE(manager().isInMemory(nullptr)); }));
}

TEST(ZebDataBlockManagerUse, LockTakesABlockOutAndUnlockPutsItBackAsTheNewest)
{
    const TemporaryStore store;
    const ThreeBlocks blocks;
    EXPECT_FALSE(blockIsLocked(blocks.one()));
    lockBlock(blocks.one());
    EXPECT_TRUE(blockIsLocked(blocks.one()));
    EXPECT_THAT(newestToOldest(), ElementsAre(blocks.three(), blocks.two()));
    EXPECT_EQ(manager().liveBlocks(), 2);
    EXPECT_EQ(manager().liveBytes(), 6);
    unlockBlock(blocks.one());
    EXPECT_THAT(newestToOldest(), ElementsAre(blocks.one(), blocks.three(), blocks.two()));
}

TEST(ZebDataBlockManagerUse, LockingAnUnlistedHashEndsTheProcessWithItsAddress)
{
    EXPECT_DEATH(
        {
            const TemporaryStore store;
            const ThreeBlocks blocks;
            lockBlock(blocks.one());
            tellAddress(blocks.one());
            lockBlock(blocks.one());
        },
        namesTheAddress("Hash ", " is Not Contained in the LRU"));
    EXPECT_DEATH(
        {
            const TemporaryStore store;
            const Hash absent = hashOf("absent");
            tellAddress(absent.data());
            lockBlock(absent.data());
        },
        namesTheAddress("Hash ", " is Not Contained in the LRU"));
}

TEST(ZebDataBlockManagerUse, UnlockingAListedHashEndsTheProcessWithItsAddress)
{
    EXPECT_DEATH(
        {
            const TemporaryStore store;
            const ThreeBlocks blocks;
            tellAddress(blocks.two());
            unlockBlock(blocks.two());
        },
        namesTheAddress("Lock Block ", " already contained in LRU"));
}

TEST(ZebDataBlockManagerUse, UnlockClearsTheFlagUnderTheDeleteLockAndTellsOnce)
{
    const TemporaryStore store;
    const ThreeBlocks blocks;
    ZebTdxMutex& deleteLock = manager().*privateMember(DeleteMutexTag());
    std::vector<bool> told;
    bool held = false;
    manager().setAllFreeBlocksFlushed(true);
    QObject context;
    QObject::connect(&manager(), &ZebDataBlockManager::allFreeBlocksFlushedChanged, &context,
                     [&](bool flushed) {
                         told.push_back(flushed);
                         std::thread([&] {
                             held = !deleteLock.tryLock();
                             if (!held)
                                 deleteLock.unlock();
                         }).join();
                     });
    lockBlock(blocks.one());
    EXPECT_THAT(told, IsEmpty());
    unlockBlock(blocks.one());
    EXPECT_THAT(told, ElementsAre(false));
    EXPECT_TRUE(held);
    lockBlock(blocks.one());
    unlockBlock(blocks.one());
    EXPECT_THAT(told, ElementsAre(false));
}

TEST(ZebDataBlockManagerUse, TheFlagFallsAsSoonAsAnAccessorCloses)
{
    const TemporaryStore store;
    const ThreeBlocks blocks;
    {
        const ZebConstAccessor accessor = blocks.m_One.constAccessor();
        manager().setAllFreeBlocksFlushed(true);
    }
    EXPECT_FALSE(manager().allFreeBlocksFlushed());
}

TEST(ZebDataBlockManagerUse, UseMakesAListedBlockTheNewest)
{
    const TemporaryStore store;
    const ThreeBlocks blocks;
    blockUsed(blocks.one());
    EXPECT_THAT(newestToOldest(), ElementsAre(blocks.one(), blocks.three(), blocks.two()));
}

TEST(ZebDataBlockManagerUse, UseOfAnUnlistedHashDoesNotListIt)
{
    const TemporaryStore store;
    const ThreeBlocks blocks;
    const Hash absent = hashOf("absent");
    blockUsed(absent.data());
    lockBlock(blocks.one());
    blockUsed(blocks.one());
    EXPECT_THAT(newestToOldest(), ElementsAre(blocks.three(), blocks.two()));
    unlockBlock(blocks.one());
}

TEST(ZebDataBlockManagerUse, WhateverIsNotListedIsLocked)
{
    const TemporaryStore store;
    const Hash absent = hashOf("absent");
    const Hash notCached = dontCacheHash("identity");
    EXPECT_TRUE(blockIsLocked(absent.data()));
    EXPECT_TRUE(blockIsLocked(notCached.data()));
    EXPECT_TRUE(blockIsLocked(nullptr));
}

TEST(ZebDataBlockManagerUse, AskingWhetherABlockIsInMemoryIsAUse)
{
    const TemporaryStore store;
    const ThreeBlocks blocks;
    EXPECT_TRUE(manager().isInMemory(blocks.one()));
    EXPECT_THAT(newestToOldest(), ElementsAre(blocks.one(), blocks.three(), blocks.two()));
    EXPECT_TRUE(blocks.m_Two.isInMemory());
    EXPECT_THAT(newestToOldest(), ElementsAre(blocks.two(), blocks.one(), blocks.three()));
}

TEST(ZebDataBlockManagerUse, OnlyAResidentHashIsInMemory)
{
    const TemporaryStore store;
    const ThreeBlocks blocks;
    const Hash absent = hashOf("absent");
    EXPECT_FALSE(manager().isInMemory(absent.data()));
    EXPECT_TRUE(manager().isInMemory(nullptr));
    EXPECT_THAT(newestToOldest(), ElementsAre(blocks.three(), blocks.two(), blocks.one()));
}

TEST(ZebDataBlockManagerUse, ALockedBlockIsInMemoryAndStaysLocked)
{
    const TemporaryStore store;
    const ThreeBlocks blocks;
    {
        const ZebConstAccessor accessor = blocks.m_One.constAccessor();
        EXPECT_TRUE(manager().isInMemory(blocks.one()));
        EXPECT_THAT(newestToOldest(), ElementsAre(blocks.three(), blocks.two()));
        EXPECT_EQ(manager().liveBlocks(), 2);
        EXPECT_EQ(manager().liveBytes(), 6);
    }
    EXPECT_THAT(newestToOldest(), ElementsAre(blocks.one(), blocks.three(), blocks.two()));
}

TEST(ZebDataBlockManagerUse, OnlyTheFirstAndTheLastAccessorMoveABlock)
{
    const TemporaryStore store;
    const ThreeBlocks blocks;
    auto first = std::make_unique<ZebConstAccessor>(blocks.m_One.constAccessor());
    auto second = std::make_unique<ZebConstAccessor>(blocks.m_One.constAccessor());
    EXPECT_EQ(first->count(), 2);
    EXPECT_EQ(first->data(), second->data());
    for (int i = 0; i < 20; ++i) {
        const ZebConstAccessor third = blocks.m_One.constAccessor();
        EXPECT_EQ(third.count(), 3);
    }
    EXPECT_EQ(first->count(), 2);
    first.reset();
    EXPECT_TRUE(blockIsLocked(blocks.one()));
    second.reset();
    EXPECT_THAT(newestToOldest(), ElementsAre(blocks.one(), blocks.three(), blocks.two()));
}

TEST(ZebDataBlockManagerUse, SizesCopiesAndReferencesAreNoUse)
{
    const TemporaryStore store;
    const ThreeBlocks blocks;
    const auto expectUntouched = [&](const char* what) {
        EXPECT_THAT(newestToOldest(), ElementsAre(blocks.three(), blocks.two(), blocks.one()))
            << what;
    };
    EXPECT_EQ(manager().blockSize(blocks.one()), 1);
    expectUntouched("size");
    EXPECT_FALSE(blocks.m_One.modifyAccessor().isNull());
    expectUntouched("copy");
    EXPECT_EQ(manager().getReference(blocks.one()), blocks.m_One);
    expectUntouched("reference");
    EXPECT_FALSE(blockIsLocked(blocks.one()));
    expectUntouched("locked");
    manager().liveBlocks();
    manager().managedBlocks();
    manager().getBlockDestination(QString(), blocks.m_One.hash());
    expectUntouched("read-outs");
}

TEST(ZebDataBlockManagerUse, APreloadOfAResidentBlockIsAUse)
{
    const TemporaryStore store;
    const ThreeBlocks blocks;
    blocks.m_One.preload();
    EXPECT_THAT(newestToOldest(), ElementsAre(blocks.one(), blocks.three(), blocks.two()));
}
