#include "data/ZebConstAccessor.h"

#include "data/ZebDataBlock.h"
#include "data/ZebDataReference.h"
#include "hash/ZebHashManager.h"
#include "support/AccessorInside.h"
#include "support/BlockInside.h"
#include "support/BlockedThread.h"
#include "support/Fatal.h"
#include "support/IsFree.h"
#include "support/RegistryInside.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <memory>
#include <thread>
#include <type_traits>
#include <vector>

using AccessorInside::block;
using BlockInside::accessCount;

namespace {

using HashPointer = ZebSmartPointer<ZebDataHash>;

// Constructs an accessor directly, as only the library does.
struct OpenAccessor : ZebConstAccessor
{
    OpenAccessor(const HashPointer& hash, ZebDataBlock* block) : ZebConstAccessor(hash, block) {}
};

ZebDataReference resolved(const QByteArray& bytes)
{
    return manager().addBlock(bytes, ZebModifyAccessor::Cached, true);
}

HashPointer interned(const QByteArray& bytes)
{
    return ZebHashManager::instance().getHash(bytes);
}

// Whether `work`, on another thread, waits for the delete lock while the calling thread holds it.
bool waitsForTheDeleteLock(const std::function<void()>& work)
{
    return waitsForLock(StoreInside::deleteLock(), work);
}

} // namespace

TEST(ZebConstAccessor, HostsGetAnAccessorFromAReferenceOnly)
{
    static_assert(!std::is_polymorphic_v<ZebConstAccessor>);
    static_assert(!std::is_default_constructible_v<ZebConstAccessor>);
    static_assert(!std::is_constructible_v<ZebConstAccessor, const HashPointer&, void*>);
    static_assert(std::is_same_v<decltype(std::declval<const ZebDataReference&>().constAccessor()),
                                 const ZebConstAccessor>);
    const TemporaryStore store;
    EXPECT_FALSE(resolved("x").constAccessor().isNull());
}

TEST(ZebConstAccessor, ShowsSizeBytesAndCount)
{
    const TemporaryStore store;
    const QByteArray bytes(1024, 1);
    const ZebDataReference reference = manager().addBlock(bytes);
    const ZebConstAccessor accessor = reference.constAccessor();
    ASSERT_FALSE(accessor.isNull());
    EXPECT_EQ(accessor.size(), 1024);
    ASSERT_NE(accessor.data(), nullptr);
    EXPECT_EQ(std::memcmp(accessor.data(), bytes.constData(), 1024), 0);
    EXPECT_EQ(accessor.count(), 1);
}

TEST(ZebConstAccessor, EmptyBlockHasAnAccessorToo)
{
    const TemporaryStore store;
    const ZebDataReference reference = resolved(QByteArray());
    const ZebConstAccessor accessor = reference.constAccessor();
    ASSERT_FALSE(accessor.isNull());
    EXPECT_EQ(accessor.size(), 0);
    EXPECT_EQ(accessor.count(), 1);
}

TEST(ZebConstAccessor, SecondAccessorShowsTheSameAddress)
{
    const TemporaryStore store;
    const ZebDataReference reference = manager().addBlock(QByteArray(1024, 1));
    const ZebConstAccessor first = reference.constAccessor();
    const ZebConstAccessor second = reference.constAccessor();
    EXPECT_EQ(first.count(), 2);
    EXPECT_EQ(second.count(), 2);
    EXPECT_EQ(second.size(), first.size());
    EXPECT_EQ(second.data(), first.data());
    for (int i = 0; i < 20; ++i) {
        const ZebConstAccessor third = reference.constAccessor();
        EXPECT_EQ(third.count(), 3);
    }
    EXPECT_EQ(first.count(), 2);
}

TEST(ZebConstAccessor, CountIsThatOfTheBlockAcrossReferences)
{
    const TemporaryStore store;
    const ZebDataReference a = resolved("some bytes");
    const ZebDataReference b = manager().addBlock("some bytes");
    const ZebConstAccessor first = a.constAccessor();
    const ZebConstAccessor second = b.constAccessor();
    EXPECT_EQ(first.count(), 2);
    EXPECT_EQ(first.data(), second.data());
    const ZebDataReference other = resolved("other bytes");
    EXPECT_EQ(other.constAccessor().count(), 1);
}

TEST(ZebConstAccessor, EqualBuffersReleasedTwiceAreOneBlock)
{
    const TemporaryStore store;
    ZebModifyAccessor firstBuffer = manager().createNewBlock(512, 7);
    ZebModifyAccessor secondBuffer = manager().createNewBlock(512, 7);
    const ZebDataReference a = firstBuffer.release();
    const ZebConstAccessor first = a.constAccessor();
    const ZebConstAccessor second = a.constAccessor();
    const ZebDataReference b = secondBuffer.release();
    const ZebConstAccessor third = b.constAccessor();
    EXPECT_TRUE(a == b);
    EXPECT_EQ(third.count(), 3);
    EXPECT_EQ(third.data(), first.data());
}

// The evictable set

TEST(ZebConstAccessor, FirstPinsTheBlockAndLastMakesItEvictable)
{
    const TemporaryStore store;
    const ZebDataReference reference = resolved(QByteArray(100, 'e'));
    const qint64 evictable = manager().liveBlocks();
    const qint64 bytes = manager().liveBytes();
    {
        const ZebConstAccessor first = reference.constAccessor();
        EXPECT_EQ(manager().liveBlocks(), evictable - 1);
        EXPECT_EQ(manager().liveBytes(), bytes);
        EXPECT_TRUE(reference.isInMemory());
        {
            const ZebConstAccessor second = reference.constAccessor();
            const ZebConstAccessor third(second);
            EXPECT_EQ(manager().liveBlocks(), evictable - 1);
        }
        EXPECT_EQ(first.count(), 1);
        EXPECT_EQ(manager().liveBlocks(), evictable - 1);
    }
    EXPECT_EQ(manager().liveBlocks(), evictable);
}

TEST(ZebConstAccessor, UnpinnedBlockIsTheMostRecentlyUsed)
{
    const TemporaryStore store;
    const ZebDataReference first = resolved("first");
    const ZebDataReference second = resolved("second");
    ASSERT_EQ(StoreInside::evictable().front(), first.hashPtr().data());
    {
        const ZebConstAccessor accessor = first.constAccessor();
    }
    EXPECT_EQ(manager().liveBlocks(), 2);
    EXPECT_EQ(StoreInside::evictable().front(), second.hashPtr().data());
}

TEST(ZebConstAccessor, FurtherAccessorsDoNotEnterTheManager)
{
    // With no store set up, locking or unlocking a block would end the process.
    ASSERT_FALSE(manager().isInitialized());
    ZebDataBlock block(16, 1);
    accessCount(block).storeRelaxed(1);
    {
        const OpenAccessor opened(interned("not resident"), &block);
        EXPECT_EQ(opened.count(), 2);
        const ZebConstAccessor copy(opened);
        EXPECT_EQ(copy.count(), 3);
    }
    EXPECT_EQ(accessCount(block).loadRelaxed(), 1);
}

TEST(ZebConstAccessor, FirstAndLastEnterTheManager)
{
    const char* const words = "Data Block Manager Not Initialized. Aborting";
    EXPECT_FATAL(
        {
            ZebDataBlock block(16, 1);
            const OpenAccessor opened(interned("not resident"), &block);
        },
        words);
    EXPECT_FATAL(
        {
            ZebDataBlock block(16, 1);
            accessCount(block).storeRelaxed(1);
            const OpenAccessor opened(interned("not resident"), &block);
            accessCount(block).storeRelaxed(1);
        },
        words);
}

TEST(ZebConstAccessor, UncachedBlockNeverBecomesEvictable)
{
    const TemporaryStore store;
    const qint64 evictable = manager().liveBlocks();
    const ZebDataReference reference = manager().addBlock("kept", ZebModifyAccessor::DontCache);
    {
        const ZebConstAccessor accessor = reference.constAccessor();
        EXPECT_EQ(accessor.count(), 1);
        EXPECT_EQ(manager().liveBlocks(), evictable);
    }
    EXPECT_EQ(manager().liveBlocks(), evictable);
    EXPECT_EQ(reference.constAccessor().count(), 1);
}

TEST(ZebConstAccessor, LastAccessorClearsTheAllFreeBlocksFlushedFlag)
{
    const TemporaryStore store;
    const ZebDataReference reference = resolved("freed once more");
    {
        const ZebConstAccessor accessor = reference.constAccessor();
        const ZebConstAccessor copy(accessor);
        manager().setAllFreeBlocksFlushed(true);
        {
            const ZebConstAccessor third = reference.constAccessor();
        }
        EXPECT_TRUE(manager().allFreeBlocksFlushed());
    }
    EXPECT_FALSE(manager().allFreeBlocksFlushed());
}

// Null accessors

TEST(ZebConstAccessor, NullBlockWithAHashGivesANullAccessorThatKeepsTheHash)
{
    const HashPointer hash = interned("kept by a null accessor");
    {
        const OpenAccessor accessor(hash, nullptr);
        EXPECT_TRUE(accessor.isNull());
        EXPECT_EQ(hash->refCount(), 2);
    }
    EXPECT_EQ(hash->refCount(), 1);
}

TEST(ZebConstAccessor, BlockThatCannotBeLoadedGivesANullAccessor)
{
    const TemporaryStore store;
    const HashPointer hash = interned("no such block");
    const int holders = hash->refCount();
    const ZebDataReference reference(hash);
    {
        const ZebConstAccessor accessor = reference.constAccessor();
        EXPECT_TRUE(accessor.isNull());
        EXPECT_EQ(hash->refCount(), holders + 2);
    }
    EXPECT_EQ(hash->refCount(), holders + 1);
}

TEST(ZebConstAccessor, NullBlockAndNullHashAreFatal)
{
    EXPECT_FATAL(OpenAccessor(HashPointer(), nullptr), "Both Block and Pointer Are Null");
}

TEST(ZebConstAccessor, CopyOfANullAccessorIsFatal)
{
    EXPECT_FATAL(
        {
            const OpenAccessor accessor(interned("null accessor"), nullptr);
            const ZebConstAccessor copy(accessor);
        },
        "Null Block Value in That");
}

// Copies and assignment

TEST(ZebConstAccessor, CopyPinsTheBlockOnceMore)
{
    const TemporaryStore store;
    // Never written, so no write request holds the hash.
    const ZebDataReference reference =
        manager().addBlock("copied accessor", ZebModifyAccessor::DontCache);
    const ZebDataHash* const hash = reference.hashPtr().data();
    auto original = std::make_unique<ZebConstAccessor>(reference.constAccessor());
    const int holders = hash->refCount();
    const ZebConstAccessor copy(*original);
    EXPECT_EQ(copy.count(), 2);
    EXPECT_EQ(copy.data(), original->data());
    EXPECT_EQ(copy.size(), original->size());
    EXPECT_FALSE(copy.isNull());
    EXPECT_EQ(hash->refCount(), holders + 1);
    original.reset();
    EXPECT_EQ(copy.count(), 1);
}

TEST(ZebConstAccessor, AssignmentMovesNoCount)
{
    const HashPointer hashA = interned("a");
    const HashPointer hashB = interned("b");
    // The counts start above 0, so that the wrong counts delete nothing.
    ZebDataBlock blockA(16, 1);
    ZebDataBlock blockB(32, 2);
    accessCount(blockA).storeRelaxed(10);
    accessCount(blockB).storeRelaxed(20);
    {
        const OpenAccessor a(hashA, &blockA);
        OpenAccessor b(hashB, &blockB);
        ASSERT_EQ(accessCount(blockA).loadRelaxed(), 11);
        ASSERT_EQ(accessCount(blockB).loadRelaxed(), 21);
        static_cast<ZebConstAccessor&>(b) = a;
        EXPECT_EQ(accessCount(blockA).loadRelaxed(), 11);
        EXPECT_EQ(accessCount(blockB).loadRelaxed(), 21);
        EXPECT_EQ(b.data(), a.data());
        EXPECT_EQ(b.size(), 16);
        EXPECT_EQ(hashA->refCount(), 3);
        EXPECT_EQ(hashB->refCount(), 1);
    }
    // Both destructors lowered the count of the same block.
    EXPECT_EQ(accessCount(blockA).loadRelaxed(), 9);
    EXPECT_EQ(accessCount(blockB).loadRelaxed(), 21);
}

TEST(ZebConstAccessor, AssignmentOfANullAccessorMovesNoCount)
{
    const HashPointer hash = interned("assigned null");
    ZebDataBlock block(16, 1);
    accessCount(block).storeRelaxed(10);
    {
        const OpenAccessor null(hash, nullptr);
        OpenAccessor accessor(hash, &block);
        static_cast<ZebConstAccessor&>(accessor) = null;
        EXPECT_TRUE(accessor.isNull());
    }
    EXPECT_EQ(accessCount(block).loadRelaxed(), 11);
}

TEST(ZebConstAccessor, SelfAssignmentChangesNothing)
{
    const TemporaryStore store;
    ZebConstAccessor accessor = resolved("to itself").constAccessor();
    const ZebConstAccessor& alias = accessor;
    accessor = alias;
    EXPECT_EQ(accessor.count(), 1);
    EXPECT_FALSE(accessor.isNull());
}

// What an accessor keeps alive

TEST(ZebConstAccessor, KeepsTheBlockAfterTheLastReferenceIsDropped)
{
    const TemporaryStore store;
    const int registered = ZebHashManager::instance().hashCount();
    {
        const ZebConstAccessor accessor = resolved(QByteArray(64, 'k')).constAccessor();
        EXPECT_EQ(ZebHashManager::instance().hashCount(), registered + 1);
        EXPECT_EQ(manager().liveBytes(), 64);
        for (int i = 0; i < 64; ++i)
            ASSERT_EQ(accessor.data()[i], 'k');
        // Adding the bytes again finds the same block.
        EXPECT_EQ(resolved(QByteArray(64, 'k')).constAccessor().data(), accessor.data());
    }
    EXPECT_TRUE(waitUntil([&] { return manager().liveBytes() == 0; }));
    EXPECT_TRUE(waitUntil([&] { return ZebHashManager::instance().hashCount() == registered; }));
    EXPECT_TRUE(waitUntil([] { return manager().liveBlocks() == 0; }));
}

TEST(ZebConstAccessor, NullAccessorKeepsTheHashOnly)
{
    const TemporaryStore store;
    const int registered = ZebHashManager::instance().hashCount();
    {
        const ZebConstAccessor accessor =
            ZebDataReference(interned("hash without block")).constAccessor();
        EXPECT_TRUE(accessor.isNull());
        EXPECT_EQ(ZebHashManager::instance().hashCount(), registered + 1);
    }
    EXPECT_EQ(ZebHashManager::instance().hashCount(), registered);
}

// Locks

TEST(ZebConstAccessor, OpeningCopyingAndClosingWaitForTheDeleteLock)
{
    const TemporaryStore store;
    const ZebDataReference reference = resolved("guarded by the delete lock");
    std::unique_ptr<ZebConstAccessor> opened;
    std::unique_ptr<ZebConstAccessor> copy;
    EXPECT_TRUE(waitsForTheDeleteLock(
        [&] { opened = std::make_unique<ZebConstAccessor>(reference.constAccessor()); }));
    EXPECT_TRUE(waitsForTheDeleteLock([&] { copy = std::make_unique<ZebConstAccessor>(*opened); }));
    EXPECT_EQ(copy->count(), 2);
    EXPECT_TRUE(waitsForTheDeleteLock([&] { copy.reset(); }));
    EXPECT_TRUE(waitsForTheDeleteLock([&] { opened.reset(); }));
}

TEST(ZebConstAccessor, HashIsReleasedAfterTheDeleteLock)
{
    const TemporaryStore store;
    // Never written, so no disk thread takes part.
    ZebDataReference reference = manager().addBlock("last holder", ZebModifyAccessor::DontCache);
    auto accessor = std::make_unique<ZebConstAccessor>(reference.constAccessor());
    ZebTdxMutex& registryMutex = RegistryInside::mutexOf(*reference.hashPtr());
    reference = ZebDataReference();
    ASSERT_EQ(accessor->count(), 1);

    // The release of the hash waits for the registry.
    registryMutex.lock();
    BlockedThread thread([&] { accessor.reset(); });
    EXPECT_TRUE(thread.waitsFor(registryMutex));
    EXPECT_TRUE(isFree(StoreInside::deleteLock()));
    registryMutex.unlock();
    EXPECT_TRUE(thread.ends());
    EXPECT_EQ(manager().liveBytes(), 0);
}

TEST(ZebConstAccessor, ManyThreadsReadOneBlock)
{
    const TemporaryStore store;
    QByteArray bytes(1 << 16, '\0');
    for (int i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(i * 7);
    const ZebDataReference reference = resolved(bytes);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&wrong, &bytes, mine = reference] {
            for (int round = 0; round < 100; ++round) {
                const ZebConstAccessor accessor = mine.constAccessor();
                const ZebConstAccessor copy(accessor);
                if (copy.count() < 2 || std::memcmp(copy.data(), bytes.constData(),
                                                    static_cast<size_t>(bytes.size())) != 0)
                    wrong.fetch_add(1);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(reference.constAccessor().count(), 1);
    EXPECT_EQ(manager().liveBlocks(), 1);
}
