// Which block is evicted, how a block is freed, and what a host does to free them all. When the
// bytes of an evicted block reach the disk: ZebDataBlockManager_EvictionWriteTest.

#include "manager/ZebDataBlockManager.h"

#include "hash/ZebHashManager.h"
#include "support/DeleteLockProbe.h"
#include "support/Fatal.h"
#include "support/FilesBelow.h"
#include "support/HashInside.h"
#include "support/IsFree.h"
#include "support/StoreFixture.h"
#include "support/StoreInside.h"
#include "support/WaitUntil.h"
#include "support/ZebDataDeleteLocker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <thread>
#include <vector>

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

namespace {

// Holds a hash on another thread, as taking or releasing a reference to it does.
class HeldHash
{
public:
    explicit HeldHash(const ZebDataReference& reference)
        : m_Hash(reference.hashPtr()), m_Thread([this] {
              m_Held.set_value(m_Hash->tryLock());
              m_Release.get_future().wait();
              m_Hash->unlock();
          })
    {
        EXPECT_TRUE(m_Held.get_future().get());
    }
    ~HeldHash()
    {
        m_Release.set_value();
        m_Thread.join();
    }
    HeldHash(const HeldHash&) = delete;
    HeldHash& operator=(const HeldHash&) = delete;

private:
    ZebSmartPointer<ZebDataHash> m_Hash;
    std::promise<bool> m_Held;
    std::promise<void> m_Release;
    std::thread m_Thread;
};

class ZebDataBlockManagerEviction : public StoreFixture
{
protected:
    ZebDataBlockManagerEviction() : StoreFixture(withOneBucket()) {}
};

} // namespace

// Which block is evicted

TEST_F(ZebDataBlockManagerEviction, TheLeastRecentlyUsedBlockIsEvictedFirst)
{
    const ZebDataReference a = add(s_Block, 1);
    const ZebDataReference b = add(s_Block, 2);
    const ZebDataReference c = add(s_Block, 3);
    EXPECT_TRUE(evictOne());
    EXPECT_THAT(StoreInside::evictable(), ElementsAre(b.hashPtr().data(), c.hashPtr().data()));
    EXPECT_FALSE(a.isInMemory());
}

TEST_F(ZebDataBlockManagerEviction, AQueriedOrReadBlockIsRecentlyUsed)
{
    const ZebDataReference a = add(s_Block, 1);
    const ZebDataReference b = add(s_Block, 2);
    const ZebDataReference c = add(s_Block, 3);
    EXPECT_TRUE(a.isInMemory());
    EXPECT_TRUE(holdsTestBytes(b, s_Block, 2));
    EXPECT_TRUE(evictOne());
    EXPECT_FALSE(c.isInMemory());
    EXPECT_TRUE(evictOne());
    EXPECT_FALSE(a.isInMemory());
    EXPECT_TRUE(b.isInMemory());
}

TEST_F(ZebDataBlockManagerEviction, AddingTheSameBytesAgainIsNoUse)
{
    const ZebDataReference a = add(s_Block, 1);
    const ZebDataReference b = add(s_Block, 2);
    add(s_Block, 1);
    EXPECT_TRUE(evictOne());
    EXPECT_FALSE(a.isInMemory());
    EXPECT_TRUE(b.isInMemory());
}

TEST_F(ZebDataBlockManagerEviction, PinnedAndUncachedBlocksAreNeverEvicted)
{
    const ZebDataReference a = add(s_Block, 1);
    const ZebDataReference b = add(s_Block, 2);
    const ZebDataReference kept =
        manager().addBlock(testBytes(s_Block, 3), ZebModifyAccessor::DontCache);
    const ZebConstAccessor readA = a.constAccessor();
    const ZebConstAccessor readB = b.constAccessor();
    EXPECT_FALSE(evictEverything());
    EXPECT_FALSE(manager().helpMeOut());
    EXPECT_EQ(manager().liveBytes(), 3 * s_Block);

    manager().setMaxDataCacheSize(s_Block);
    const ZebDataReference more = add(s_Block, 4);
    EXPECT_EQ(manager().liveBytes(), 4 * s_Block) << "above the limit, as nothing can be evicted";
    EXPECT_EQ(manager().liveBlocks(), 1);
}

TEST_F(ZebDataBlockManagerEviction, AHashHeldByAnotherThreadIsSkippedAndBecomesTheNewest)
{
    const ZebDataReference a = add(s_Block, 1);
    const ZebDataReference b = add(s_Block, 2);
    const ZebDataReference c = add(s_Block, 3);
    waitForWriters();
    const qint64 freed = StoreInside::blocksFreed();
    {
        const HeldHash held(a);
        EXPECT_TRUE(evictOne());
    }
    EXPECT_EQ(StoreInside::blocksFreed(), freed + 1);
    EXPECT_THAT(StoreInside::evictable(), ElementsAre(c.hashPtr().data(), a.hashPtr().data()));
    EXPECT_TRUE(isFree(*b.hashPtr())) << "unlocked by the eviction";
}

TEST_F(ZebDataBlockManagerEviction, EvictionRetriesWhileEveryHashIsHeld)
{
    const ZebDataReference a = add(s_Block, 1);
    const ZebDataReference b = add(s_Block, 2);
    waitForWriters();
    std::future<bool> evicted;
    {
        const ZebSmartPointer<ZebDataHash> hash = a.hashPtr();
        const HeldHash heldA(a);
        const HeldHash heldB(b);
        evicted = std::async(std::launch::async, [] { return evictEverything(); });
        // Each turn makes a held hash the newest. The delete lock is not free meanwhile.
        quint64 used = HashInside::stamp(*hash);
        int turns = 0;
        EXPECT_TRUE(waitUntil([&] {
            const quint64 now = HashInside::stamp(*hash);
            turns += now == used ? 0 : 1;
            used = now;
            return turns >= 10;
        }));
    }
    EXPECT_TRUE(evicted.get());
    EXPECT_EQ(manager().liveBlocks(), 0);
}

TEST_F(ZebDataBlockManagerEviction, ABlockAsLargeAsTheLimitEvictsCachedBlocksButNoUncachedOnes)
{
    manager().setMaxDataCacheSize(s_Megabyte);
    const ZebDataReference keptA =
        manager().addBlock(QByteArray("a"), ZebModifyAccessor::DontCache);
    const ZebDataReference keptB =
        manager().addBlock(QByteArray("a"), ZebModifyAccessor::DontCache);
    EXPECT_NE(keptA, keptB);
    const ZebDataReference small = add(s_Block, 1);
    const ZebDataReference large = add(s_Megabyte, 2);
    EXPECT_TRUE(keptA.isInMemory());
    EXPECT_TRUE(keptB.isInMemory());
    EXPECT_FALSE(small.isInMemory());
    EXPECT_TRUE(large.isInMemory());
    manager().flush(true, ZebDataBlockManager::AllThreads);
    EXPECT_THAT(filesBelow(m_Store.roots()), UnorderedElementsAre(small.hash(), large.hash()));

    EXPECT_TRUE(holdsTestBytes(small, s_Block, 1));
    EXPECT_FALSE(large.isInMemory()) << "it had to make room in turn";
    EXPECT_TRUE(holdsTestBytes(large, s_Megabyte, 2));
    EXPECT_EQ(manager().liveBytes(), s_Megabyte + 2);
}

// freeBlock

TEST_F(ZebDataBlockManagerEviction, EachFreedBlockIsCounted)
{
    const qint64 freed = StoreInside::blocksFreed();
    ZebDataReference a = add(s_Block, 1);
    const ZebDataReference b = add(s_Block, 2);
    const ZebDataReference c = add(s_Block, 3);
    waitForWriters();
    a = ZebDataReference();
    EXPECT_EQ(StoreInside::blocksFreed(), freed + 1);
    EXPECT_TRUE(evictOne());
    EXPECT_EQ(StoreInside::blocksFreed(), freed + 2);
    manager().freeAllBlocks();
    EXPECT_EQ(StoreInside::blocksFreed(), freed + 3);
    m_Store.cleanUp();
    EXPECT_EQ(StoreInside::blocksFreed(), -1);
}

TEST_F(ZebDataBlockManagerEviction, FreeingABlockThatIsNotResidentDoesNothing)
{
    const ZebDataReference a = add(s_Block, 1);
    manager().freeAllBlocks();
    const qint64 freed = StoreInside::blocksFreed();
    StoreInside::freeBlock(a.hashPtr().data(), true, false);
    EXPECT_EQ(StoreInside::blocksFreed(), freed);
    EXPECT_EQ(manager().liveBytes(), 0);
    EXPECT_TRUE(deleteLockIsFree());
}

TEST_F(ZebDataBlockManagerEviction, FreeingABlockThatIsNotResidentUnlocksItsHash)
{
    const ZebDataReference a = add(s_Block, 1);
    manager().freeAllBlocks();
    const ZebSmartPointer<ZebDataHash> hash = a.hashPtr();
    {
        // As eviction does: the delete lock first.
        const ZebDataDeleteLocker locker;
        ASSERT_TRUE(hash->tryLock());
        StoreInside::freeBlock(hash.data(), true, true);
    }
    EXPECT_TRUE(isFree(*hash));
}

TEST_F(ZebDataBlockManagerEviction, FreeingWithoutAStoreIsSilent)
{
    const ZebDataReference a = add(s_Block, 1);
    ZebDataReference b = add(s_Block, 2);
    m_Store.cleanUp();
    m_Store.messages().clear();
    StoreInside::freeBlock(a.hashPtr().data(), true, false);
    b = ZebDataReference();
    EXPECT_EQ(StoreInside::blocksFreed(), -1);
    EXPECT_THAT(m_Store.messages().debugLines(), IsEmpty());
}

TEST_F(ZebDataBlockManagerEviction, ABlockIsDeletedWithTheLastReferenceToItsHash)
{
    {
        const ZebDataReference reference = addCounted(1);
        waitForWriters();
        const ZebDataReference second = reference;
        EXPECT_EQ(StoreInside::blocksFreed(), -1);
    }
    EXPECT_EQ(m_Deleted, 1);
    EXPECT_EQ(StoreInside::blocksFreed(), 0);
    EXPECT_EQ(manager().liveBytes(), 0);
    EXPECT_EQ(manager().liveBlocks(), 0);
    EXPECT_EQ(StoreInside::residentBlocks(), 0);
    EXPECT_THAT(StoreInside::evictable(), IsEmpty());
    {
        // A hash without a block frees none.
        const auto absent = ZebHashManager::instance().getHash(QByteArray("absent"));
    }
    EXPECT_EQ(StoreInside::blocksFreed(), 0);
}

TEST_F(ZebDataBlockManagerEviction, FreeingABlockRemovesItFromBothTablesAndUnlocksItsHash)
{
    const ZebDataReference a = addCounted(1);
    const ZebDataReference b = addCounted(2);
    const ZebDataReference c = addCounted(3);
    waitForWriters();
    for (const ZebDataReference& reference : {a, b}) {
        const ZebSmartPointer<ZebDataHash> hash = reference.hashPtr();
        const bool hashLocked = reference == b;
        {
            const ZebDataDeleteLocker locker;
            if (hashLocked) {
                ASSERT_TRUE(hash->tryLock());
            }
            StoreInside::freeBlock(hash.data(), false, hashLocked);
        }
        EXPECT_TRUE(isFree(*hash));
        EXPECT_FALSE(manager().isInMemory(hash.data()));
        EXPECT_THAT(StoreInside::evictable(), Not(Contains(hash.data())));
    }
    EXPECT_EQ(m_Deleted, 2);
    EXPECT_EQ(manager().liveBytes(), s_Block);
    EXPECT_THAT(StoreInside::evictable(), ElementsAre(c.hashPtr().data()));
    EXPECT_EQ(manager().managedBlocks(), 3);
    // Freeing it again finds nothing to free.
    StoreInside::freeBlock(a.hashPtr().data(), false, false);
    EXPECT_EQ(manager().liveBytes(), s_Block);
    EXPECT_EQ(StoreInside::blocksFreed(), 1);
}

// freeAllBlocks

TEST_F(ZebDataBlockManagerEviction, FreeingAllBlocksEmptiesMemoryAndKeepsTheHashes)
{
    std::vector<ZebDataReference> references;
    for (quint32 i = 0; i < 50; ++i)
        references.push_back(add(s_Block, i));
    const ZebDataReference kept =
        manager().addBlock(testBytes(s_Block, 50), ZebModifyAccessor::DontCache);
    manager().flush(true, ZebDataBlockManager::AllThreads);
    const int hashes = ZebHashManager::instance().hashCount();
    manager().freeAllBlocks();
    EXPECT_EQ(manager().liveBlocks(), 0);
    EXPECT_EQ(manager().liveBytes(), 0);
    EXPECT_EQ(StoreInside::residentBlocks(), 0);
    EXPECT_EQ(ZebHashManager::instance().hashCount(), hashes);
    EXPECT_TRUE(kept.constAccessor().isNull()) << "its bytes were nowhere else";
    EXPECT_FALSE(kept.isInMemory());
    for (quint32 i = 0; i < 50; ++i)
        EXPECT_TRUE(holdsTestBytes(references.at(i), s_Block, i));
}

TEST_F(ZebDataBlockManagerEviction, FreeingAllBlocksNeedsAStore)
{
    m_Store.cleanUp();
    EXPECT_FATAL(manager().freeAllBlocks(), "Data Block Manager Not Initialized. Aborting");
}
