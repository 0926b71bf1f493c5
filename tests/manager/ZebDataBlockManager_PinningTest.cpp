// What protects a block from eviction: accessors, and being used.

#include "manager/ZebDataBlockManager.h"

#include "support/BlockedThread.h"
#include "support/DeleteLockProbe.h"
#include "support/Fatal.h"
#include "support/Manager.h"
#include "support/MessageCapture.h"
#include "support/ResidencyKit.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

using namespace ResidencyKit;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

bool takesTheDeleteLock(const std::function<void()>& operation)
{
    return waitsForLock(StoreInside::deleteLock(), operation);
}

// Prints the address that the message of the ending process must contain.
void printAddress(const ZebDataHash* hash)
{
    std::fprintf(stderr, "{address:%llu}",
                 static_cast<unsigned long long>(reinterpret_cast<quintptr>(hash)));
}

// Matches the output of a process that ended with `before`, the printed address and `after`.
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

TEST(ZebDataBlockManagerPinning, ADuplicateIsNoUse)
{
    const TemporaryStore store;
    const ThreeBlocks blocks;
    for (const bool immediate : {true, false}) {
        manager().addBlock("1", ZebModifyAccessor::Cached, immediate).resolveWork();
        EXPECT_THAT(newestToOldest(), ElementsAre(blocks.three(), blocks.two(), blocks.one()));
    }
    EXPECT_EQ(manager().liveBytes(), 6);
}

TEST(ZebDataBlockManagerPinning, ADuplicateOfAPinnedBlockLeavesItPinned)
{
    const TemporaryStore store;
    const ThreeBlocks blocks;
    const ZebConstAccessor accessor = blocks.m_One.constAccessor();
    manager().addBlock("1", ZebModifyAccessor::Cached, true);
    EXPECT_TRUE(blockIsLocked(blocks.one()));
    EXPECT_EQ(manager().liveBlocks(), 2);
}

TEST(ZebDataBlockManagerPinning, PinningAnUncachedBlockDoesNothingEvenBeforeSetUp)
{
    const MessageCapture messages;
    ASSERT_FALSE(manager().isInitialized());
    const Hash hash = dontCacheHash("identity");
    manager().setAllFreeBlocksFlushed(true);
    // It returns before it takes any lock.
    EXPECT_FALSE(takesTheDeleteLock([&] { lockBlock(hash.data()); }));
    EXPECT_FALSE(takesTheDeleteLock([&] { unlockBlock(hash.data()); }));
    EXPECT_FALSE(takesTheDeleteLock([&] { blockUsed(hash.data()); }));
    EXPECT_TRUE(manager().allFreeBlocksFlushed());
    manager().setAllFreeBlocksFlushed(false);
}

TEST(ZebDataBlockManagerPinning, OperationsOnResidencyTakeTheDeleteLock)
{
    const TemporaryStore store;
    const ThreeBlocks blocks;
    const Hash fresh = hashOf("fresh");
    EXPECT_TRUE(takesTheDeleteLock([&] { lockBlock(blocks.one()); }));
    EXPECT_TRUE(takesTheDeleteLock([&] { unlockBlock(blocks.one()); }));
    EXPECT_TRUE(takesTheDeleteLock([&] { blockUsed(blocks.one()); }));
    EXPECT_TRUE(takesTheDeleteLock([&] { blockIsLocked(blocks.one()); }));
    EXPECT_TRUE(takesTheDeleteLock([&] { manager().isInMemory(blocks.one()); }));
    EXPECT_TRUE(takesTheDeleteLock([&] { manager().blockSize(blocks.one()); }));
    EXPECT_TRUE(takesTheDeleteLock(
        [&] { makeBlockLive(fresh.data(), new ZebDataBlock(QByteArray("fresh"))); }));
}

TEST(ZebDataBlockManagerPinning, ReadOutsTakeNoDeleteLock)
{
    const TemporaryStore store;
    const ThreeBlocks blocks;
    EXPECT_FALSE(takesTheDeleteLock([] { EXPECT_EQ(manager().liveBlocks(), 3); }));
    EXPECT_FALSE(takesTheDeleteLock([] { EXPECT_EQ(manager().liveBytes(), 6); }));
    EXPECT_FALSE(takesTheDeleteLock([] { EXPECT_EQ(manager().managedBlocks(), 3); }));
    EXPECT_FALSE(takesTheDeleteLock([] { EXPECT_TRUE(manager().isInMemory(nullptr)); }));
}

TEST(ZebDataBlockManagerPinning, PinningTakesABlockOutAndUnpinningPutsItBackAsTheNewest)
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

TEST(ZebDataBlockManagerPinning, PinningAnUnlistedHashEndsTheProcessWithItsAddress)
{
    EXPECT_DEATH(
        {
            const TemporaryStore store;
            const ThreeBlocks blocks;
            lockBlock(blocks.one());
            printAddress(blocks.one());
            lockBlock(blocks.one());
        },
        namesTheAddress("Hash ", " is Not Contained in the LRU"));
    EXPECT_DEATH(
        {
            const TemporaryStore store;
            const Hash absent = hashOf("absent");
            printAddress(absent.data());
            lockBlock(absent.data());
        },
        namesTheAddress("Hash ", " is Not Contained in the LRU"));
}

TEST(ZebDataBlockManagerPinning, UnpinningAListedHashEndsTheProcessWithItsAddress)
{
    EXPECT_DEATH(
        {
            const TemporaryStore store;
            const ThreeBlocks blocks;
            printAddress(blocks.two());
            unlockBlock(blocks.two());
        },
        namesTheAddress("Lock Block ", " already contained in LRU"));
}

TEST(ZebDataBlockManagerPinning, UnpinningClearsTheFlagUnderTheDeleteLockAndSignalsOnce)
{
    const TemporaryStore store;
    const ThreeBlocks blocks;
    std::vector<bool> signals;
    bool held = false;
    manager().setAllFreeBlocksFlushed(true);
    QObject context;
    QObject::connect(&manager(), &ZebDataBlockManager::allFreeBlocksFlushedChanged, &context,
                     [&](bool flushed) {
                         signals.push_back(flushed);
                         held = !deleteLockIsFree();
                     });
    lockBlock(blocks.one());
    EXPECT_THAT(signals, IsEmpty());
    unlockBlock(blocks.one());
    EXPECT_THAT(signals, ElementsAre(false));
    EXPECT_TRUE(held);
    lockBlock(blocks.one());
    unlockBlock(blocks.one());
    EXPECT_THAT(signals, ElementsAre(false));
}

TEST(ZebDataBlockManagerPinning, TheFlagFallsAsSoonAsAnAccessorCloses)
{
    const TemporaryStore store;
    const ThreeBlocks blocks;
    {
        const ZebConstAccessor accessor = blocks.m_One.constAccessor();
        manager().setAllFreeBlocksFlushed(true);
    }
    EXPECT_FALSE(manager().allFreeBlocksFlushed());
}

TEST(ZebDataBlockManagerPinning, UseMakesAListedBlockTheNewest)
{
    const TemporaryStore store;
    const ThreeBlocks blocks;
    blockUsed(blocks.one());
    EXPECT_THAT(newestToOldest(), ElementsAre(blocks.one(), blocks.three(), blocks.two()));
}

TEST(ZebDataBlockManagerPinning, UseOfAnUnlistedHashDoesNotListIt)
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

TEST(ZebDataBlockManagerPinning, EveryUnlistedHashCountsAsPinned)
{
    const TemporaryStore store;
    const Hash absent = hashOf("absent");
    const Hash notCached = dontCacheHash("identity");
    EXPECT_TRUE(blockIsLocked(absent.data()));
    EXPECT_TRUE(blockIsLocked(notCached.data()));
    EXPECT_TRUE(blockIsLocked(nullptr));
}

TEST(ZebDataBlockManagerPinning, AskingWhetherABlockIsInMemoryIsAUse)
{
    const TemporaryStore store;
    const ThreeBlocks blocks;
    EXPECT_TRUE(manager().isInMemory(blocks.one()));
    EXPECT_THAT(newestToOldest(), ElementsAre(blocks.one(), blocks.three(), blocks.two()));
    EXPECT_TRUE(blocks.m_Two.isInMemory());
    EXPECT_THAT(newestToOldest(), ElementsAre(blocks.two(), blocks.one(), blocks.three()));
}

TEST(ZebDataBlockManagerPinning, OnlyAResidentHashIsInMemory)
{
    const TemporaryStore store;
    const ThreeBlocks blocks;
    const Hash absent = hashOf("absent");
    EXPECT_FALSE(manager().isInMemory(absent.data()));
    EXPECT_TRUE(manager().isInMemory(nullptr));
    EXPECT_THAT(newestToOldest(), ElementsAre(blocks.three(), blocks.two(), blocks.one()));
}

TEST(ZebDataBlockManagerPinning, APinnedBlockIsInMemoryAndStaysPinned)
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

TEST(ZebDataBlockManagerPinning, OnlyTheFirstAndTheLastAccessorMoveABlock)
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

TEST(ZebDataBlockManagerPinning, SizesCopiesAndReferencesAreNoUse)
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

TEST(ZebDataBlockManagerPinning, APreloadOfAResidentBlockIsAUse)
{
    const TemporaryStore store;
    const ThreeBlocks blocks;
    blocks.m_One.preload();
    EXPECT_THAT(newestToOldest(), ElementsAre(blocks.one(), blocks.three(), blocks.two()));
}
