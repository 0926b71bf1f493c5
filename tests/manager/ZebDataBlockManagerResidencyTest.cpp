#include "manager/ZebDataBlockManager.h"

#include "manager/ResidencyKit.h"
#include "support/Fatal.h"
#include "support/TemporaryStore.h"
#include "support/ZebDataDeleteLocker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

ZEBTDX_ACCESS(BlocksFreedTag, ZebDataBlockManager, std::atomic<qint64> ZebDataBlockManager::*,
              m_BlocksFreedCount)
ZEBTDX_ACCESS(BlockCachedTag, ZebDataBlock, std::atomic<bool> ZebDataBlock::*, m_Cached)
ZEBTDX_ACCESS(FreeBlockTag, ZebDataBlockManager,
              void (ZebDataBlockManager::*)(ZebDataHash*, bool, bool), freeBlock)

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// A block that counts its end.
class CountedBlock : public ZebDataBlock
{
public:
    CountedBlock(const QByteArray& bytes, int* ended) : ZebDataBlock(bytes), m_Ended(ended) {}
    ~CountedBlock() override { ++*m_Ended; }

private:
    int* m_Ended;
};

// The block as one whose file is known to exist, so that nobody writes it meanwhile.
ZebDataBlock* onDisk(ZebDataBlock* block)
{
    block->*privateMember(BlockCachedTag()) = true;
    return block;
}

TemporaryStore::Options withMemory(qint64 bytes)
{
    TemporaryStore::Options options;
    options.m_Memory = bytes;
    return options;
}

} // namespace

TEST(ZebDataBlockManagerResidency, AMadeBlockIsResidentCountedAndTheNewest)
{
    const TemporaryStore store;
    const ThreeBlocks blocks;
    const Hash hash = hashOf("4444");
    auto* const block = new ZebDataBlock(QByteArray("4444"));
    makeBlockLive(hash.data(), block);
    EXPECT_EQ(blockMap().value(hash.data()), block);
    EXPECT_EQ(manager().liveBytes(), 10);
    EXPECT_EQ(manager().liveBlocks(), 4);
    EXPECT_THAT(newestToOldest(),
                ElementsAre(hash.data(), blocks.three(), blocks.two(), blocks.one()));
}

TEST(ZebDataBlockManagerResidency, NullArgumentsEndTheProcessTheBlockFirst)
{
    EXPECT_FATAL(
        {
            const TemporaryStore store;
            makeBlockLive(nullptr, nullptr);
        },
        "Null Value Passed For *Me");
    EXPECT_FATAL(
        {
            const TemporaryStore store;
            const Hash hash = hashOf("a");
            makeBlockLive(hash.data(), nullptr);
        },
        "Null Value Passed For *Me");
    EXPECT_FATAL(
        {
            const TemporaryStore store;
            makeBlockLive(nullptr, new ZebDataBlock(QByteArray("a")));
        },
        "Null Value Passed For *Ptr");
}

TEST(ZebDataBlockManagerResidency, ANullBlockOfAResidentHashEndsTheProcessToo)
{
    EXPECT_FATAL(
        {
            const TemporaryStore store;
            const ThreeBlocks blocks;
            makeBlockLive(blocks.one(), nullptr);
        },
        "Null Value Passed For *Me");
}

TEST(ZebDataBlockManagerResidency, TheFirstBlockOfAHashStaysAndANewcomerGoes)
{
    int ended = 0;
    int newcomersEnded = 0;
    const TemporaryStore store;
    const Hash hash = hashOf("bytes");
    ZebDataBlock* const first = onDisk(new CountedBlock("bytes", &ended));
    makeBlockLive(hash.data(), first);
    makeBlockLive(hash.data(), new CountedBlock("bytes", &newcomersEnded));
    EXPECT_EQ(ended, 0);
    EXPECT_EQ(newcomersEnded, 1);
    EXPECT_EQ(blockMap().value(hash.data()), first);
    EXPECT_EQ(blockMap().size(), 1);
    EXPECT_EQ(manager().liveBytes(), 5);
    EXPECT_EQ(manager().liveBlocks(), 1);
}

TEST(ZebDataBlockManagerResidency, ABlockOfExactlyTheLimitIsAdmitted)
{
    const TemporaryStore store(withMemory(100));
    const ZebDataReference cached =
        manager().addBlock(QByteArray(100, 'x'), ZebModifyAccessor::Cached, true);
    EXPECT_TRUE(cached.isInMemory());
    const ZebDataReference notCached =
        manager().addBlock(QByteArray(100, 'x'), ZebModifyAccessor::DontCache);
    EXPECT_TRUE(notCached.isInMemory());
}

TEST(ZebDataBlockManagerResidency, ABlockAboveTheLimitEndsTheProcess)
{
    EXPECT_FATAL(
        {
            const TemporaryStore store(withMemory(100));
            manager().addBlock(QByteArray(101, 'x'), ZebModifyAccessor::Cached, true);
        },
        "Requested Block is larger than the maximum allocation size 101 / 100");
    EXPECT_FATAL(
        {
            const TemporaryStore store(withMemory(100));
            manager().addBlock(QByteArray(5000, 'x'), ZebModifyAccessor::DontCache);
        },
        "Requested Block is larger than the maximum allocation size 5000 / 100");
    EXPECT_FATAL(
        {
            const TemporaryStore store(withMemory(0));
            const Hash hash = hashOf("a");
            makeBlockLive(hash.data(), new ZebDataBlock(QByteArray("a")));
        },
        "Requested Block is larger than the maximum allocation size 1 / 0");
}

TEST(ZebDataBlockManagerResidency, ADuplicateAboveTheLimitIsDroppedWithoutAWord)
{
    TemporaryStore store(withMemory(100));
    const QByteArray bytes(100, 'x');
    const ZebDataReference first = manager().addBlock(bytes, ZebModifyAccessor::Cached, true);
    manager().setMaxDataCacheSize(99);
    store.messages().clear();
    const ZebDataReference again = manager().addBlock(bytes, ZebModifyAccessor::Cached, true);
    EXPECT_EQ(again, first);
    EXPECT_EQ(manager().liveBytes(), 100);
    EXPECT_TRUE(store.messages().messages().isEmpty());
}

TEST(ZebDataBlockManagerResidency, TheSizeIsThatOfThePlainBytes)
{
    const TemporaryStore store(withMemory(5000));
    auto block = std::make_unique<ZebDataBlock>(5000, static_cast<unsigned char>(7));
    ASSERT_TRUE(block->compress());
    const Hash hash = hashOf("five thousand sevens");
    makeBlockLive(hash.data(), block.release());
    EXPECT_EQ(manager().liveBytes(), 5000);
    EXPECT_EQ(manager().blockSize(hash.data()), 5000);
}

TEST(ZebDataBlockManagerResidency, ABlockThatComesFromTheDiskIsEvictableLikeAnother)
{
    const TemporaryStore store;
    const Hash hash = hashOf("bytes");
    makeBlockLive(hash.data(), onDisk(new ZebDataBlock(QByteArray("bytes"))));
    EXPECT_THAT(newestToOldest(), ElementsAre(hash.data()));
}

TEST(ZebDataBlockManagerResidency, TheRootIsLookedForBeforeTheBlocksOrigin)
{
    EXPECT_FATAL(
        {
            TemporaryStore::Options options;
            options.m_Roots = 0;
            const TemporaryStore store(options);
            const Hash hash = hashOf("bytes");
            makeBlockLive(hash.data(), onDisk(new ZebDataBlock(QByteArray("bytes"))));
        },
        "Number of cache paths is zero");
}

TEST(ZebDataBlockManagerResidency, ADontCacheBlockIsInTheMapAndNeverInTheList)
{
    const TemporaryStore store;
    const Hash hash = dontCacheHash("identity");
    auto* const block = new ZebDataBlock(QByteArray("bytes"));
    makeBlockLive(hash.data(), block);
    EXPECT_EQ(blockMap().value(hash.data()), block);
    EXPECT_EQ(manager().liveBytes(), 5);
    EXPECT_THAT(newestToOldest(), IsEmpty());
    lockBlock(hash.data());
    unlockBlock(hash.data());
    blockUsed(hash.data());
    EXPECT_THAT(newestToOldest(), IsEmpty());
    EXPECT_TRUE(blockIsLocked(hash.data()));
    EXPECT_TRUE(manager().isInMemory(hash.data()));
}

TEST(ZebDataBlockManagerResidency, ABlockIsFoundByItsHash)
{
    const TemporaryStore store;
    const ThreeBlocks blocks;
    const Hash absent = hashOf("absent");
    const ZebDataDeleteLocker locker;
    EXPECT_EQ(getDataBlock(blocks.two()), blockMap().value(blocks.two()));
    EXPECT_EQ(getDataBlock(nullptr), nullptr);
    EXPECT_EQ(getDataBlock(absent.data()), nullptr);
    EXPECT_FALSE(blockMap().contains(absent.data()));
    EXPECT_THAT(newestToOldest(), ElementsAre(blocks.three(), blocks.two(), blocks.one()));
}

TEST(ZebDataBlockManagerResidency, TheSizeOfAnAbsentBlockIsZero)
{
    const TemporaryStore store;
    const Hash absent = hashOf("absent");
    EXPECT_EQ(manager().blockSize(absent.data()), 0);
    EXPECT_EQ(manager().blockSize(nullptr), 0);
}

TEST(ZebDataBlockManagerResidency, AHashWithoutABlockIsManagedAndNotLive)
{
    const TemporaryStore store;
    const Hash absent = hashOf("absent");
    EXPECT_EQ(manager().managedBlocks(), 1);
    EXPECT_EQ(manager().liveBlocks(), 0);
    EXPECT_EQ(manager().liveBytes(), 0);
}

TEST(ZebDataBlockManagerResidency, ABlockEndsWithTheLastReferenceOnItsHash)
{
    int ended = 0;
    const TemporaryStore store;
    std::atomic<qint64>& freed = manager().*privateMember(BlocksFreedTag());
    {
        const Hash hash = hashOf("bytes");
        makeBlockLive(hash.data(), onDisk(new CountedBlock("bytes", &ended)));
        const Hash second = hash;
        EXPECT_EQ(freed.load(), -1);
    }
    EXPECT_EQ(ended, 1);
    EXPECT_EQ(freed.load(), 0);
    EXPECT_EQ(manager().liveBytes(), 0);
    EXPECT_EQ(manager().liveBlocks(), 0);
    EXPECT_TRUE(blockMap().isEmpty());
    EXPECT_THAT(newestToOldest(), IsEmpty());
    {
        // A hash that had no block frees none.
        const Hash absent = hashOf("absent");
    }
    EXPECT_EQ(freed.load(), 0);
}

TEST(ZebDataBlockManagerResidency, AFreedBlockLeavesBothTablesAndItsHashUnlocked)
{
    int ended = 0;
    const TemporaryStore store;
    const Hash one = hashOf("1");
    const Hash two = hashOf("22");
    const Hash three = hashOf("333");
    for (const auto& [hash, bytes] :
         {std::make_pair(one, "1"), std::make_pair(two, "22"), std::make_pair(three, "333")})
        makeBlockLive(hash.data(), onDisk(new CountedBlock(bytes, &ended)));

    for (const Hash& hash : {one, two}) {
        const bool hashLocked = hash == two;
        if (hashLocked) {
            ASSERT_TRUE(hash->tryLock());
        }
        (manager().*privateMember(FreeBlockTag()))(hash.data(), false, hashLocked);
        bool free = false;
        std::thread([&] {
            free = hash->tryLock();
            if (free)
                hash->unlock();
        }).join();
        EXPECT_TRUE(free);
        EXPECT_FALSE(manager().isInMemory(hash.data()));
        EXPECT_TRUE(blockIsLocked(hash.data()));
    }
    EXPECT_EQ(ended, 2);
    EXPECT_EQ(manager().liveBytes(), 3);
    EXPECT_THAT(newestToOldest(), ElementsAre(three.data()));
    EXPECT_EQ(manager().managedBlocks(), 3);
    // Freeing it again finds nothing to free.
    (manager().*privateMember(FreeBlockTag()))(one.data(), false, false);
    EXPECT_EQ(manager().liveBytes(), 3);
    EXPECT_EQ((manager().*privateMember(BlocksFreedTag())).load(), 1);
}

TEST(ZebDataBlockManagerResidency, ReadersAndAdmissionsKeepTheTablesInStep)
{
    const TemporaryStore store;
    constexpr int contents = 20;
    std::vector<ZebDataReference> references;
    for (int i = 0; i < contents; ++i)
        references.push_back(manager().addBlock(QByteArray(10, static_cast<char>('a' + i))));
    std::vector<std::thread> threads;
    for (unsigned seed = 0; seed < 3; ++seed) {
        threads.emplace_back([mine = references, seed] {
            for (unsigned round = 0; round < 400; ++round) {
                const ZebDataReference& reference = mine[(round * 7 + seed * 5) % contents];
                const ZebConstAccessor accessor = reference.constAccessor();
                ASSERT_FALSE(accessor.isNull());
                ASSERT_EQ(accessor.size(), 10);
                ASSERT_EQ(accessor.data()[0], accessor.data()[9]);
                ASSERT_TRUE(reference.isInMemory());
                manager().addBlock(QByteArray(10, static_cast<char>(accessor.data()[0])),
                                   ZebModifyAccessor::Cached, true);
                manager().addBlock("passing", ZebModifyAccessor::DontCache);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(blockMap().size(), contents);
    EXPECT_EQ(manager().liveBlocks(), contents);
    EXPECT_EQ(manager().liveBytes(), 10 * contents);
    EXPECT_EQ(newestToOldest().size(), static_cast<size_t>(contents));
}
