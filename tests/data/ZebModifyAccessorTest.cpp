#include "data/ZebModifyAccessor.h"

#include "data/ZebDataBlock.h"
#include "data/ZebDataReference.h"
#include "data/ZebHashingJob.h"
#include "hash/ZebHashManager.h"
#include "support/AccessorInside.h"
#include "support/BlockInside.h"
#include "support/BlockedThread.h"
#include "support/BytesOf.h"
#include "support/CountedBlock.h"
#include "support/Fatal.h"
#include "support/IsFree.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <type_traits>

using AccessorInside::block;
using BlockInside::accessCount;

namespace {

// Constructs an accessor directly, as only the library does.
struct OpenAccessor : ZebModifyAccessor
{
    explicit OpenAccessor(ZebDataBlock* block) : ZebModifyAccessor(block) {}
};

QByteArray pattern(int size, int seed = 0)
{
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(i * 31 + seed);
    return bytes;
}

void fill(const ZebModifyAccessor& accessor, const QByteArray& bytes)
{
    std::memcpy(accessor.data(), bytes.constData(), static_cast<size_t>(bytes.size()));
}

} // namespace

// New blocks

TEST(ZebModifyAccessor, CachingHasItsNumbers)
{
    EXPECT_EQ(static_cast<int>(ZebModifyAccessor::Cached), 0);
    EXPECT_EQ(static_cast<int>(ZebModifyAccessor::DontCache), 1);
    static_assert(!std::is_polymorphic_v<ZebModifyAccessor>);
    static_assert(!std::is_default_constructible_v<ZebModifyAccessor>);
    static_assert(!std::is_constructible_v<ZebModifyAccessor, void*>);
}

TEST(ZebModifyAccessor, NewBlockIsFilled)
{
    const TemporaryStore store;
    const ZebModifyAccessor accessor = manager().createNewBlock(2048, 0x80);
    ASSERT_FALSE(accessor.isNull());
    ASSERT_NE(accessor.data(), nullptr);
    EXPECT_EQ(accessor.size(), 2048);
    EXPECT_EQ(accessor.count(), 1);
    for (int i = 0; i < 2048; ++i)
        ASSERT_EQ(accessor.data()[i], 0x80) << i;
    const ZebModifyAccessor zeros = manager().createNewBlock(16);
    EXPECT_EQ(zeros.data()[15], 0);
}

TEST(ZebModifyAccessor, NewBlockOfBytesIsAPrivateCopy)
{
    const TemporaryStore store;
    const QByteArray bytes = pattern(300);
    const ZebModifyAccessor accessor = manager().createNewBlock(bytes);
    EXPECT_EQ(accessor.size(), 300);
    EXPECT_EQ(accessor.count(), 1);
    EXPECT_EQ(std::memcmp(accessor.data(), bytes.constData(), 300), 0);
    accessor.data()[0] = 0xEE;
    EXPECT_EQ(bytes, pattern(300));
}

TEST(ZebModifyAccessor, EmptyNewBlockIsNotNull)
{
    const TemporaryStore store;
    ZebModifyAccessor ofSize = manager().createNewBlock(qint64(0));
    EXPECT_FALSE(ofSize.isNull());
    EXPECT_EQ(ofSize.size(), 0);
    ZebModifyAccessor ofBytes = manager().createNewBlock(QByteArray());
    EXPECT_FALSE(ofBytes.isNull());
    EXPECT_TRUE(ofSize.release(ZebModifyAccessor::Cached, true) ==
                ofBytes.release(ZebModifyAccessor::Cached, true));
}

TEST(ZebModifyAccessor, NewBlockCountsNothingUntilItIsReleased)
{
    const TemporaryStore store;
    const qint64 managed = manager().managedBlocks();
    ZebModifyAccessor accessor = manager().createNewBlock(2048, 1);
    EXPECT_EQ(manager().liveBytes(), 0);
    EXPECT_EQ(manager().liveBlocks(), 0);
    EXPECT_EQ(manager().managedBlocks(), managed);
    const ZebDataReference reference = accessor.release(ZebModifyAccessor::Cached, true);
    EXPECT_EQ(manager().liveBytes(), 2048);
    EXPECT_EQ(manager().liveBlocks(), 1);
    EXPECT_EQ(manager().managedBlocks(), managed + 1);
}

TEST(ZebModifyAccessor, LimitHoldsAtReleaseOnly)
{
    TemporaryStore::Options options;
    options.m_Memory = 4096;
    const TemporaryStore store(options);
    ZebModifyAccessor tooLarge = manager().createNewBlock(4097, 1);
    EXPECT_EQ(tooLarge.size(), 4097);
    EXPECT_NE(tooLarge.data(), nullptr);
    ZebModifyAccessor fits = manager().createNewBlock(4096, 1);
    const ZebDataReference reference = fits.release(ZebModifyAccessor::Cached, true);
    EXPECT_EQ(manager().liveBytes(), 4096);
}

TEST(ZebModifyAccessor, ReleaseAboveTheLimitIsFatal)
{
    EXPECT_FATAL(
        {
            manager().setup({}, 4096);
            manager().createNewBlock(4097, 1).release(ZebModifyAccessor::DontCache, true);
        },
        "Requested Block is larger than the maximum allocation size 4097 / 4096");
}

TEST(ZebModifyAccessor, NewBlocksNeedTheStore)
{
    const char* const words = "Data Block Manager Not Initialized. Aborting";
    EXPECT_FATAL(manager().createNewBlock(16, 1), words);
    EXPECT_FATAL(manager().createNewBlock(QByteArray("x")), words);
    // The missing store is reported before the wrong size.
    EXPECT_FATAL(manager().createNewBlock(-1, 1), words);
}

TEST(ZebModifyAccessor, NegativeSizeIsFatal)
{
    EXPECT_FATAL(
        {
            manager().setup({}, 4096);
            manager().createNewBlock(-1, 1);
        },
        "Negative value passed for size.");
}

// Release

TEST(ZebModifyAccessor, ReleasedBlockIsRead)
{
    const TemporaryStore store;
    ZebModifyAccessor accessor = manager().createNewBlock(2048, 0x80);
    const QByteArray bytes = pattern(2048);
    fill(accessor, bytes);
    const ZebDataReference reference = accessor.release(ZebModifyAccessor::Cached, false);
    EXPECT_TRUE(accessor.isNull());
    const ZebConstAccessor readBack = reference.constAccessor();
    ASSERT_FALSE(readBack.isNull());
    EXPECT_EQ(readBack.size(), 2048);
    EXPECT_EQ(readBack.count(), 1);
    EXPECT_EQ(std::memcmp(readBack.data(), bytes.constData(), 2048), 0);
    EXPECT_EQ(reference.hash(), ZebDataHash(bytes, ZebDataHash::Hash512).toString());
}

TEST(ZebModifyAccessor, ReleaseMovesTheBlockWithoutACopy)
{
    const TemporaryStore store;
    const struct
    {
        ZebModifyAccessor::Caching m_Caching;
        bool m_Immediate;
    } rows[] = {{ZebModifyAccessor::Cached, true},
                {ZebModifyAccessor::Cached, false},
                {ZebModifyAccessor::DontCache, true},
                {ZebModifyAccessor::DontCache, false}};
    int seed = 0;
    for (const auto& row : rows) {
        ZebModifyAccessor accessor = manager().createNewBlock(pattern(512, ++seed));
        const unsigned char* const address = accessor.data();
        const ZebDataReference reference = accessor.release(row.m_Caching, row.m_Immediate);
        EXPECT_EQ(reference.constAccessor().data(), address) << seed;
    }
}

TEST(ZebModifyAccessor, ReleaseIsPendingOnlyWhenCachedAndNotImmediate)
{
    const TemporaryStore store;
    using Accessor = ZebModifyAccessor;
    EXPECT_TRUE(manager().createNewBlock(8, 1).release(Accessor::Cached, false).hasHashJob());
    EXPECT_FALSE(manager().createNewBlock(8, 2).release(Accessor::Cached, true).hasHashJob());
    EXPECT_FALSE(manager().createNewBlock(8, 3).release(Accessor::DontCache, false).hasHashJob());
    EXPECT_FALSE(manager().createNewBlock(8, 4).release(Accessor::DontCache, true).hasHashJob());
    EXPECT_TRUE(manager().createNewBlock(8, 5).release().hasHashJob());
}

TEST(ZebModifyAccessor, EqualBlocksReleasedAreOneBlock)
{
    const TemporaryStore store;
    const qint64 managed = manager().managedBlocks();
    const int hashes = ZebHashManager::instance().hashCount();
    const int objects = ZebDataHash::hashCount();
    ZebModifyAccessor first = manager().createNewBlock(pattern(2048));
    ZebModifyAccessor second = manager().createNewBlock(2048, 0);
    fill(second, pattern(2048));
    const ZebDataReference a = first.release(ZebModifyAccessor::Cached, false);
    const ZebDataReference b = second.release(ZebModifyAccessor::Cached, false);
    a.resolveWork();
    b.resolveWork();
    EXPECT_TRUE(a == b);
    EXPECT_EQ(ZebHashManager::instance().hashCount(), hashes + 1);
    EXPECT_EQ(ZebDataHash::hashCount(), objects + 1) << "the second hash has ended";
    EXPECT_EQ(manager().managedBlocks(), managed + 1);
    EXPECT_EQ(manager().liveBlocks(), 1);
    EXPECT_EQ(manager().liveBytes(), 2048);
}

TEST(ZebModifyAccessor, EqualUncachedBlocksReleasedStayTwo)
{
    const TemporaryStore store;
    ZebModifyAccessor first = manager().createNewBlock(pattern(100));
    ZebModifyAccessor second = manager().createNewBlock(pattern(100));
    const ZebDataReference a = first.release(ZebModifyAccessor::DontCache);
    const ZebDataReference b = second.release(ZebModifyAccessor::DontCache);
    EXPECT_TRUE(a != b);
    EXPECT_TRUE(a.hashPtr()->isDontCache());
    EXPECT_EQ(bytesOf(a), bytesOf(b));
    EXPECT_EQ(manager().liveBytes(), 200);
}

TEST(ZebModifyAccessor, SecondReleaseGivesANullReference)
{
    const TemporaryStore store;
    ZebModifyAccessor accessor = manager().createNewBlock(64, 1);
    const ZebDataReference reference = accessor.release(ZebModifyAccessor::Cached, true);
    EXPECT_FALSE(reference.isNull());
    EXPECT_TRUE(accessor.release(ZebModifyAccessor::Cached, true).isNull());
    EXPECT_TRUE(accessor.release(ZebModifyAccessor::DontCache, false).isNull());
    EXPECT_EQ(manager().liveBytes(), 64);
    EXPECT_EQ(reference.constAccessor().count(), 1);
}

TEST(ZebModifyAccessor, ReleaseOfANullAccessorNeedsNoStore)
{
    ASSERT_FALSE(manager().isInitialized());
    OpenAccessor accessor(nullptr);
    EXPECT_TRUE(accessor.release().isNull());
    EXPECT_TRUE(accessor.release(ZebModifyAccessor::DontCache, true).isNull());
}

TEST(ZebModifyAccessor, ReleaseLowersTheCountAndLeavesTheCopiesAsTheyAre)
{
    const TemporaryStore store;
    ZebModifyAccessor accessor = manager().createNewBlock(pattern(64));
    auto copy = std::make_unique<ZebModifyAccessor>(accessor);
    ZebDataBlock* const released = block(accessor);
    ASSERT_EQ(copy->count(), 2);
    const ZebDataReference reference = accessor.release(ZebModifyAccessor::Cached, true);
    EXPECT_TRUE(accessor.isNull());
    EXPECT_FALSE(copy->isNull());
    EXPECT_EQ(copy->count(), 1);
    EXPECT_EQ(block(*copy), released);

    // The copy still lowers the count of a block that it no longer owns. One accessor more keeps it
    // from deleting that block, and is then taken away again.
    accessCount(*released).fetchAndAddOrdered(1);
    copy.reset();
    EXPECT_EQ(accessCount(*released).loadRelaxed(), 1);
    accessCount(*released).fetchAndAddOrdered(-1);
    EXPECT_EQ(bytesOf(reference), pattern(64));
}

TEST(ZebModifyAccessor, AccessorDroppedWithoutReleaseChangesNothing)
{
    const TemporaryStore store;
    const qint64 managed = manager().managedBlocks();
    const int references = ZebDataReference::referenceCount();
    {
        const ZebModifyAccessor accessor = manager().createNewBlock(1024, 1);
        const ZebModifyAccessor copy(accessor);
        EXPECT_EQ(copy.count(), 2);
    }
    EXPECT_EQ(manager().managedBlocks(), managed);
    EXPECT_EQ(manager().liveBlocks(), 0);
    EXPECT_EQ(manager().liveBytes(), 0);
    EXPECT_EQ(ZebDataReference::referenceCount(), references);
}

// The accessor as a value

TEST(ZebModifyAccessor, LastAccessorDeletesTheBlockThroughItsVirtualDestructor)
{
    std::atomic<int> deleted{0};
    {
        const OpenAccessor accessor(new CountedBlock(qint64(16), &deleted));
        EXPECT_EQ(accessor.count(), 1);
        {
            const ZebModifyAccessor copy(accessor);
            EXPECT_EQ(copy.count(), 2);
            EXPECT_EQ(copy.data(), accessor.data());
            EXPECT_EQ(copy.size(), 16);
        }
        EXPECT_EQ(accessor.count(), 1);
        EXPECT_EQ(deleted.load(), 0);
    }
    EXPECT_EQ(deleted.load(), 1);
}

TEST(ZebModifyAccessor, NullAccessorIsGuarded)
{
    const OpenAccessor accessor(nullptr);
    EXPECT_TRUE(accessor.isNull());
    EXPECT_EQ(accessor.data(), nullptr);
    EXPECT_EQ(accessor.size(), 0);
    EXPECT_EQ(accessor.count(), 0);
    const ZebModifyAccessor copy(accessor);
    EXPECT_TRUE(copy.isNull());
    EXPECT_EQ(copy.count(), 0);
}

TEST(ZebModifyAccessor, AssignmentMovesNoCount)
{
    // The counts start above 0, so that the wrong counts delete nothing.
    ZebDataBlock blockA(16, 1);
    ZebDataBlock blockB(32, 2);
    accessCount(blockA).storeRelaxed(10);
    accessCount(blockB).storeRelaxed(20);
    {
        const OpenAccessor a(&blockA);
        OpenAccessor b(&blockB);
        OpenAccessor c(nullptr);
        static_cast<ZebModifyAccessor&>(b) = a;
        EXPECT_EQ(accessCount(blockA).loadRelaxed(), 11);
        EXPECT_EQ(accessCount(blockB).loadRelaxed(), 21);
        EXPECT_EQ(b.data(), a.data());
        static_cast<ZebModifyAccessor&>(c) = a;
        EXPECT_EQ(accessCount(blockA).loadRelaxed(), 11);
        EXPECT_EQ(c.size(), 16);
    }
    EXPECT_EQ(accessCount(blockA).loadRelaxed(), 8);
    EXPECT_EQ(accessCount(blockB).loadRelaxed(), 21);
}

TEST(ZebModifyAccessor, DataDecompressesWhenNeeded)
{
    const TemporaryStore store;
    const QByteArray bytes(5000, 'c');
    const ZebModifyAccessor accessor = manager().createNewBlock(bytes);
    ZebDataBlock& stored = *block(accessor);
    ASSERT_TRUE(stored.compress(9));
    EXPECT_EQ(accessor.size(), 5000);
    ASSERT_NE(accessor.data(), nullptr);
    EXPECT_FALSE(stored.isCompressed());
    EXPECT_EQ(std::memcmp(accessor.data(), bytes.constData(), 5000), 0);

    ASSERT_TRUE(stored.compress(9));
    BlockInside::storedBytes(stored) = QByteArray("\0\0\0\x10no zlib", 11);
    EXPECT_EQ(accessor.data(), nullptr);
    EXPECT_FALSE(accessor.isNull());
}

// Copies of existing blocks

TEST(ZebModifyAccessor, CopyOfABlockIsPrivateAndPlain)
{
    const TemporaryStore store;
    const QByteArray bytes = pattern(4096);
    const ZebDataReference reference = manager().addBlock(bytes, ZebModifyAccessor::Cached, true);
    const ZebConstAccessor source = reference.constAccessor();
    const ZebModifyAccessor accessor = reference.modifyAccessor();
    ASSERT_FALSE(accessor.isNull());
    EXPECT_EQ(accessor.count(), 1);
    EXPECT_EQ(accessor.size(), 4096);
    EXPECT_NE(accessor.data(), source.data());
    EXPECT_EQ(std::memcmp(accessor.data(), bytes.constData(), 4096), 0);
    EXPECT_FALSE(block(accessor)->isCompressed());
    EXPECT_FALSE(block(accessor)->cached());
    EXPECT_EQ(source.count(), 1);
    EXPECT_EQ(manager().liveBytes(), 4096);
}

TEST(ZebModifyAccessor, CopyOfABlockThatLacksBytesIsFilledWithZeros)
{
    const TemporaryStore store;
    const auto added = [](ZebDataBlock* block) {
        return ZebDataReference(ZebSmartPointer<ZebBlockFuture>(new ZebHashingJob(block)));
    };
    constexpr int size = 1000000;
    // One that stores nothing, and one whose compressed bytes are all that it stores.
    const ZebDataReference empty =
        added(new ZebDataBlock(static_cast<const unsigned char*>(nullptr), qint64{size}));
    const ZebModifyAccessor copyOfEmpty = empty.modifyAccessor();
    ASSERT_EQ(copyOfEmpty.size(), size);
    EXPECT_EQ(QByteArray::fromRawData(reinterpret_cast<const char*>(copyOfEmpty.data()), size),
              QByteArray(size, '\0'));

    auto* const compressed = new ZebDataBlock(QByteArray(size, 'c'));
    ASSERT_TRUE(compressed->compress(9));
    const QByteArray stored = qCompress(QByteArray(size, 'c'), 9);
    const ZebModifyAccessor copy = added(compressed).modifyAccessor();
    ASSERT_EQ(copy.size(), size);
    EXPECT_EQ(QByteArray::fromRawData(reinterpret_cast<const char*>(copy.data()), size),
              stored + QByteArray(size - stored.size(), '\0'));
}

TEST(ZebModifyAccessor, ModifiedCopyIsANewBlockAndTheOldOneStays)
{
    const TemporaryStore store;
    const QByteArray oldBytes = pattern(1024);
    const ZebDataReference oldReference = manager().addBlock(oldBytes);
    const QString oldHash = oldReference.hash();
    ZebModifyAccessor accessor = oldReference.modifyAccessor();
    accessor.data()[17] = static_cast<unsigned char>(~accessor.data()[17]);
    const ZebDataReference newReference = accessor.release();
    QByteArray newBytes = oldBytes;
    newBytes[17] = static_cast<char>(~newBytes.at(17));
    EXPECT_NE(newReference.hash(), oldHash);
    EXPECT_EQ(newReference.hash(), ZebDataHash(newBytes, ZebDataHash::Hash512).toString());
    EXPECT_EQ(oldReference.hash(), oldHash);
    EXPECT_EQ(bytesOf(oldReference), oldBytes);
    EXPECT_EQ(bytesOf(newReference), newBytes);
    EXPECT_EQ(manager().liveBytes(), 2048);
}

TEST(ZebModifyAccessor, UnchangedCopyReleasedIsTheOldBlock)
{
    const TemporaryStore store;
    const ZebDataReference reference =
        manager().addBlock(pattern(128), ZebModifyAccessor::Cached, true);
    const ZebDataReference again = reference.modifyAccessor().release();
    again.resolveWork();
    EXPECT_TRUE(again == reference);
    EXPECT_EQ(manager().liveBytes(), 128);
}

TEST(ZebModifyAccessor, CopyOutlivesTheReference)
{
    const TemporaryStore store;
    ZebModifyAccessor accessor = manager().addBlock(pattern(256)).modifyAccessor();
    EXPECT_TRUE(waitUntil([&] { return manager().liveBytes() == 0; }));
    EXPECT_EQ(std::memcmp(accessor.data(), pattern(256).constData(), 256), 0);
    EXPECT_EQ(bytesOf(accessor.release()), pattern(256));
}

TEST(ZebModifyAccessor, CopyOfAnUncachedBlockMayBeCached)
{
    const TemporaryStore store;
    const ZebDataReference kept = manager().addBlock(pattern(200), ZebModifyAccessor::DontCache);
    const ZebDataReference cached = kept.modifyAccessor().release(ZebModifyAccessor::Cached, true);
    EXPECT_TRUE(cached != kept);
    EXPECT_FALSE(cached.hashPtr()->isDontCache());
    EXPECT_EQ(bytesOf(cached), pattern(200));
}

TEST(ZebModifyAccessor, BlockThatCannotBeLoadedGivesANullAccessor)
{
    const TemporaryStore store;
    const ZebDataReference reference(ZebHashManager::instance().getHash(pattern(9)));
    EXPECT_TRUE(reference.modifyAccessor().isNull());
}

TEST(ZebModifyAccessor, NullReferenceGivesANullAccessorAndNoMessage)
{
    TemporaryStore store;
    store.messages().clear();
    EXPECT_TRUE(ZebDataReference().modifyAccessor().isNull());
    EXPECT_TRUE(store.messages().messages().isEmpty());
}

TEST(ZebModifyAccessor, NullReferenceNeedsTheStoreToo)
{
    EXPECT_FATAL(ZebDataReference().modifyAccessor(),
                 "Data Block Manager Not Initialized. Aborting");
}

TEST(ZebModifyAccessor, CopyingABlockTakesTheDeleteLockAndReleasesIt)
{
    const TemporaryStore store;
    const ZebDataReference reference =
        manager().addBlock(pattern(64), ZebModifyAccessor::Cached, true);
    EXPECT_TRUE(waitsForLock(StoreInside::deleteLock(),
                             [&reference] { EXPECT_FALSE(reference.modifyAccessor().isNull()); }));

    const ZebModifyAccessor held = reference.modifyAccessor();
    const ZebModifyAccessor heldNull = ZebDataReference().modifyAccessor();
    EXPECT_TRUE(isFree(StoreInside::deleteLock()));
    EXPECT_FALSE(held.isNull());
}
