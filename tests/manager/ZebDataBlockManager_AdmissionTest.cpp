// How bytes and blocks of a host become blocks of the store, and references to them.

#include "manager/ZebDataBlockManager.h"

#include "data/ZebDataBlock.h"
#include "data/ZebDataReference.h"
#include "hash/ZebDataHash.h"
#include "hash/ZebHashManager.h"
#include "support/BlockedThread.h"
#include "support/BusyHashingPool.h"
#include "support/BytesOf.h"
#include "support/CountedBlock.h"
#include "support/Fatal.h"
#include "support/Manager.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <set>
#include <thread>
#include <vector>

using StoreInside::addBlock;
using testing::Contains;
using testing::IsEmpty;

namespace {

constexpr auto s_Cached = ZebModifyAccessor::Cached;
constexpr auto s_DontCache = ZebModifyAccessor::DontCache;

bool isResident(const ZebDataReference& reference)
{
    return StoreInside::blockOf(reference) != nullptr;
}

bool takesTheDeleteLock(const std::function<void()>& operation)
{
    return waitsForLock(StoreInside::deleteLock(), operation);
}

} // namespace

TEST(ZebDataBlockManagerAdmission, EqualCachedBytesAreOneBlockOfOneHash)
{
    const TemporaryStore store;
    const ZebDataReference one = manager().addBlock("a", s_Cached);
    const ZebDataReference two = manager().addBlock("a", s_Cached, true);
    EXPECT_EQ(one.hashPtr(), two.hashPtr());
    EXPECT_EQ(one.hash(), two.hash());
    EXPECT_EQ(StoreInside::residentBlocks(), 1);
    EXPECT_EQ(manager().liveBytes(), 1);
    EXPECT_EQ(manager().managedBlocks(), 1);
}

TEST(ZebDataBlockManagerAdmission, EqualUncachedBytesAreTwoBlocksOfTwoHashes)
{
    const TemporaryStore store;
    const ZebDataReference one = manager().addBlock("a", s_DontCache);
    const ZebDataReference two = manager().addBlock("a", s_DontCache);
    EXPECT_NE(one.hash(), two.hash());
    EXPECT_NE(one.hashPtr(), two.hashPtr());
    EXPECT_EQ(StoreInside::residentBlocks(), 2);
    EXPECT_EQ(manager().liveBytes(), 2);
    EXPECT_EQ(bytesOf(one), "a");
    EXPECT_EQ(bytesOf(two), "a");
}

TEST(ZebDataBlockManagerAdmission, TheHashOfACachedBlockIsThatOfItsBytes)
{
    const TemporaryStore store;
    const QByteArray bytes("some bytes");
    const QString expected = ZebDataHash(bytes, ZebDataHash::Hash512).toString();
    EXPECT_EQ(manager().addBlock(bytes, s_Cached, true).hash(), expected);
    EXPECT_EQ(manager().addBlock(bytes, s_Cached, false).hash(), expected);
    EXPECT_EQ(addBlock(new ZebDataBlock(bytes), s_Cached, true).hash(), expected);
    EXPECT_EQ(addBlock(new ZebDataBlock(bytes), s_Cached, false).hash(), expected);
}

TEST(ZebDataBlockManagerAdmission, AnEmptyBlockIsABlock)
{
    const TemporaryStore store;
    const ZebDataReference reference = manager().addBlock(QByteArray(), s_Cached, true);
    EXPECT_FALSE(reference.isNull());
    EXPECT_TRUE(reference.isInMemory());
    EXPECT_EQ(manager().liveBytes(), 0);
    EXPECT_EQ(manager().liveBlocks(), 1);
    EXPECT_EQ(manager().blockSize(reference.hashPtr().data()), 0);
}

TEST(ZebDataBlockManagerAdmission, AnUncachedBlockHasAnIdentityOfItsOwn)
{
    const TemporaryStore store;
    const QByteArray bytes("some bytes");
    std::set<QString> seen;
    std::vector<ZebDataReference> references;
    for (int i = 0; i < 20; ++i) {
        const ZebDataReference reference =
            i % 2 == 0 ? manager().addBlock(bytes, s_DontCache)
                       : addBlock(new ZebDataBlock(bytes), s_DontCache, true);
        const ZebSmartPointer<ZebDataHash> hash = reference.hashPtr();
        EXPECT_EQ(hash->size(), ZebDataHash::Hash512);
        EXPECT_TRUE(hash->isDontCache());
        EXPECT_TRUE(seen.insert(reference.hash()).second);
        references.push_back(reference);
    }
    EXPECT_EQ(manager().managedBlocks(), 20);
    // The digest of its bytes is not interned.
    EXPECT_FALSE(
        ZebHashManager::instance().isHashLive(ZebDataHash(bytes, ZebDataHash::Hash512).toString()));
}

TEST(ZebDataBlockManagerAdmission, AnUncachedBlockIsInterned)
{
    const TemporaryStore store;
    const ZebDataReference reference = manager().addBlock("bytes", s_DontCache);
    EXPECT_TRUE(ZebHashManager::instance().isHashLive(reference.hash()));
    const ZebSmartPointer<ZebDataHash> found = ZebHashManager::instance().getHash(reference.hash());
    EXPECT_EQ(found, reference.hashPtr());
    EXPECT_TRUE(isResident(ZebDataReference(found)));
}

TEST(ZebDataBlockManagerAdmission, AnUncachedBlockCountsItsBytesAndIsNeverEvictable)
{
    const TemporaryStore store;
    const ZebDataReference reference = manager().addBlock("12345", s_DontCache);
    EXPECT_EQ(manager().liveBytes(), 5);
    EXPECT_EQ(manager().liveBlocks(), 0);
    EXPECT_THAT(StoreInside::evictable(), IsEmpty());
    EXPECT_TRUE(reference.isInMemory());
    bytesOf(reference);
    EXPECT_EQ(manager().liveBlocks(), 0);
}

TEST(ZebDataBlockManagerAdmission, AnUncachedBlockIsDeletedWithItsLastReference)
{
    std::atomic<int> deleted{0};
    const TemporaryStore store;
    const ZebDataReference other = manager().addBlock("cached", s_Cached, true);
    {
        const ZebDataReference first =
            addBlock(new CountedBlock("12345", &deleted), s_DontCache, true);
        const ZebDataReference second = first;
        EXPECT_EQ(manager().liveBytes(), 11);
        EXPECT_EQ(manager().liveBlocks(), 1);
    }
    EXPECT_EQ(deleted, 1);
    EXPECT_EQ(manager().liveBytes(), 6);
    EXPECT_EQ(manager().liveBlocks(), 1);
    EXPECT_EQ(manager().managedBlocks(), 1);
}

TEST(ZebDataBlockManagerAdmission, ImmediateMakesNoDifferenceToAnUncachedBlock)
{
    const TemporaryStore store;
    const BusyHashingPool busy;
    for (const bool immediate : {false, true}) {
        const ZebDataReference reference = manager().addBlock("a", s_DontCache, immediate);
        EXPECT_FALSE(reference.hasHashJob());
        EXPECT_TRUE(isResident(reference));
        const ZebDataReference given = addBlock(new ZebDataBlock("b"), s_DontCache, immediate);
        EXPECT_FALSE(given.hasHashJob());
    }
}

TEST(ZebDataBlockManagerAdmission, AnImmediateBlockIsInTheStoreWhenTheCallReturns)
{
    const TemporaryStore store;
    const BusyHashingPool busy;
    const ZebDataReference reference = manager().addBlock("bytes", s_Cached, true);
    EXPECT_FALSE(reference.hasHashJob());
    EXPECT_TRUE(isResident(reference));
    EXPECT_THAT(StoreInside::evictable(), Contains(reference.hashPtr().data()));
    EXPECT_EQ(manager().liveBytes(), 5);
    const ZebDataReference given = addBlock(new ZebDataBlock("more"), s_Cached, true);
    EXPECT_FALSE(given.hasHashJob());
    EXPECT_EQ(manager().liveBytes(), 9);
}

TEST(ZebDataBlockManagerAdmission, APendingBlockChangesNoTableUntilItsJobRuns)
{
    const TemporaryStore store;
    BusyHashingPool busy;
    const ZebDataReference bytes = manager().addBlock("bytes");
    const ZebDataReference given = addBlock(new ZebDataBlock("more"), s_Cached, false);
    EXPECT_TRUE(bytes.hasHashJob());
    EXPECT_TRUE(given.hasHashJob());
    EXPECT_FALSE(bytes.isNull());
    EXPECT_EQ(StoreInside::residentBlocks(), 0);
    EXPECT_EQ(manager().liveBytes(), 0);
    EXPECT_EQ(manager().managedBlocks(), 0);
    busy.release();
    EXPECT_EQ(manager().liveBytes(), 9);
    EXPECT_EQ(manager().liveBlocks(), 2);
    EXPECT_EQ(bytesOf(bytes), "bytes");
    EXPECT_EQ(bytesOf(given), "more");
}

TEST(ZebDataBlockManagerAdmission, APendingBlockIsReportedAsInMemoryAtOnce)
{
    const TemporaryStore store;
    // The query itself runs the job, as the pool is too busy.
    const BusyHashingPool busy;
    const ZebDataReference reference = manager().addBlock("bytes", s_Cached, false);
    EXPECT_TRUE(reference.isInMemory());
    EXPECT_FALSE(reference.hasHashJob());
    EXPECT_EQ(manager().liveBytes(), 5);
}

TEST(ZebDataBlockManagerAdmission, TheDefaultIsACachedBlockHashedByAJob)
{
    const TemporaryStore store;
    BusyHashingPool busy;
    const ZebDataReference reference = manager().addBlock("bytes");
    EXPECT_TRUE(reference.hasHashJob());
    busy.release();
    EXPECT_FALSE(reference.hashPtr()->isDontCache());
}

TEST(ZebDataBlockManagerAdmission, TheStoreKeepsACopyOfTheBytes)
{
    const TemporaryStore store;
    for (const auto caching : {s_Cached, s_DontCache}) {
        QByteArray bytes("0123456789");
        const ZebDataReference reference = manager().addBlock(bytes, caching, true);
        bytes[0] = 'X';
        EXPECT_EQ(bytesOf(reference), "0123456789");
    }
}

TEST(ZebDataBlockManagerAdmission, ANullBlockGivesANullReference)
{
    const TemporaryStore store;
    for (const auto caching : {s_Cached, s_DontCache}) {
        for (const bool immediate : {false, true}) {
            const ZebDataReference reference = addBlock(nullptr, caching, immediate);
            EXPECT_TRUE(reference.isNull());
            EXPECT_FALSE(reference.hasHashJob());
        }
    }
    EXPECT_EQ(StoreInside::residentBlocks(), 0);
    EXPECT_EQ(manager().managedBlocks(), 0);
}

TEST(ZebDataBlockManagerAdmission, TheGivenBlockItselfBecomesResident)
{
    const TemporaryStore store;
    for (const auto caching : {s_Cached, s_DontCache}) {
        auto* const block = new ZebDataBlock(QByteArray(1, static_cast<char>('a' + caching)));
        const ZebDataReference reference = addBlock(block, caching, true);
        EXPECT_EQ(StoreInside::blockOf(reference), block);
    }
    auto* const pending = new ZebDataBlock("pending");
    const ZebDataReference reference = addBlock(pending, s_Cached, false);
    EXPECT_EQ(StoreInside::blockOf(reference), pending);
}

TEST(ZebDataBlockManagerAdmission, AGivenDuplicateIsDeleted)
{
    std::atomic<int> deleted{0};
    const TemporaryStore store;
    const ZebDataReference first = manager().addBlock("bytes", s_Cached, true);
    ZebDataBlock* const resident = StoreInside::blockOf(first);
    for (const bool immediate : {true, false}) {
        deleted = 0;
        const ZebDataReference again =
            addBlock(new CountedBlock("bytes", &deleted), s_Cached, immediate);
        again.resolveWork();
        EXPECT_EQ(deleted, 1) << immediate;
        EXPECT_EQ(again, first);
    }
    EXPECT_EQ(StoreInside::blockOf(first), resident);
    EXPECT_EQ(manager().liveBytes(), 5);
}

TEST(ZebDataBlockManagerAdmission, AReferenceToAHashHoldsIt)
{
    const TemporaryStore store;
    const ZebSmartPointer<ZebDataHash> hash =
        ZebHashManager::instance().getHash(QByteArray("bytes"));
    const int holders = hash->refCount();
    {
        const ZebDataReference reference = manager().getReference(hash.data());
        EXPECT_EQ(reference.hashPtr(), hash);
        EXPECT_EQ(hash->refCount(), holders + 1);
        EXPECT_FALSE(reference.hasHashJob());
        EXPECT_FALSE(reference.isInMemory());
    }
    EXPECT_EQ(hash->refCount(), holders);
}

TEST(ZebDataBlockManagerAdmission, AReferenceToNoHashIsNull)
{
    const TemporaryStore store;
    EXPECT_TRUE(manager().getReference(nullptr).isNull());
}

TEST(ZebDataBlockManagerAdmission, ImmediateAdmissionTakesTheDeleteLock)
{
    const TemporaryStore store;
    EXPECT_TRUE(takesTheDeleteLock([] { manager().addBlock("a", s_DontCache); }));
    EXPECT_TRUE(takesTheDeleteLock([] { manager().addBlock("b", s_Cached, true); }));
    EXPECT_TRUE(takesTheDeleteLock([] { addBlock(new ZebDataBlock("c"), s_DontCache, true); }));
    EXPECT_TRUE(takesTheDeleteLock([] { addBlock(new ZebDataBlock("d"), s_Cached, true); }));
    EXPECT_TRUE(takesTheDeleteLock([] { manager().getReference(nullptr); }));
}

TEST(ZebDataBlockManagerAdmission, ImmediateAdmissionInternsItsHashUnderTheDeleteLock)
{
    const TemporaryStore store;
    const std::vector<std::function<ZebDataReference()>> operations = {
        [] { return manager().addBlock("a", s_DontCache); },
        [] { return manager().addBlock("b", s_Cached, true); },
        [] { return addBlock(new ZebDataBlock("c"), s_DontCache, true); },
        [] { return addBlock(new ZebDataBlock("d"), s_Cached, true); },
    };
    std::vector<ZebDataReference> references;
    for (const auto& operation : operations) {
        const qint64 before = manager().managedBlocks();
        ZebDataReference reference;
        {
            StoreInside::DeleteLock& deleteLock = StoreInside::deleteLock();
            deleteLock.lock();
            BlockedThread thread([&] { reference = operation(); });
            EXPECT_TRUE(thread.waitsFor(deleteLock));
            EXPECT_EQ(manager().managedBlocks(), before);
            deleteLock.unlock();
        }
        EXPECT_EQ(manager().managedBlocks(), before + 1);
        references.push_back(reference);
    }
}

TEST(ZebDataBlockManagerAdmission, AdmissionByAJobTakesNoDeleteLock)
{
    const TemporaryStore store;
    BusyHashingPool busy;
    ZebDataReference bytes;
    ZebDataReference given;
    EXPECT_FALSE(takesTheDeleteLock([&] { bytes = manager().addBlock("a"); }));
    EXPECT_FALSE(
        takesTheDeleteLock([&] { given = addBlock(new ZebDataBlock("b"), s_Cached, false); }));
    busy.release();
    EXPECT_EQ(manager().liveBytes(), 2);
}

TEST(ZebDataBlockManagerAdmission, AReferenceSurvivesCleanUpWithItsHashAndUserId)
{
    TemporaryStore store;
    ZebDataReference kept = manager().addBlock("bytes", s_Cached, true);
    kept.setUserId(42);
    ZebDataHash* const hash = kept.hashPtr().data();
    const QString text = kept.hash();
    store.cleanUp();
    EXPECT_EQ(kept.hash(), text);
    EXPECT_EQ(manager().managedBlocks(), 1);

    store.setupAgain();
    EXPECT_FALSE(kept.isInMemory());
    const ZebDataReference again = manager().addBlock("bytes", s_Cached);
    EXPECT_EQ(again.hashPtr().data(), hash);
    EXPECT_EQ(again, kept);
    EXPECT_EQ(again.userId(), 42);
    EXPECT_TRUE(kept.isInMemory());
    EXPECT_EQ(bytesOf(kept), "bytes");
}

TEST(ZebDataBlockManagerAdmission, AReferenceThatOutlivesTheStoreEndsSilently)
{
    TemporaryStore store;
    {
        const ZebDataReference cached = manager().addBlock("bytes", s_Cached, true);
        const ZebDataReference notCached = manager().addBlock("bytes", s_DontCache);
        store.cleanUp();
        store.messages().clear();
    }
    EXPECT_EQ(manager().managedBlocks(), 0);
    EXPECT_TRUE(store.messages().messages().isEmpty());
}

TEST(ZebDataBlockManagerAdmission, AStoreWithoutRootsTakesUncachedBlocksOnly)
{
    {
        TemporaryStore::Options options;
        options.m_Roots = 0;
        const TemporaryStore store(options);
        const ZebDataReference reference = manager().addBlock("bytes", s_DontCache);
        EXPECT_EQ(bytesOf(reference), "bytes");
    }
    EXPECT_FATAL(
        {
            TemporaryStore::Options options;
            options.m_Roots = 0;
            const TemporaryStore store(options);
            manager().addBlock("bytes", s_Cached, true);
        },
        "Number of cache paths is zero");
}

TEST(ZebDataBlockManagerAdmission, ManyThreadsAdmitTheSameBytesOnce)
{
    const TemporaryStore store;
    constexpr int threadCount = 4;
    constexpr int contents = 60;
    std::vector<std::vector<ZebDataReference>> references(threadCount);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < threadCount; ++thread) {
        threads.emplace_back([thread, &mine = references[static_cast<size_t>(thread)]] {
            for (int i = 0; i < contents; ++i) {
                const QByteArray bytes = "content " + QByteArray::number(100 + i);
                mine.push_back(manager().addBlock(bytes, s_Cached, (thread + i) % 2 == 0));
                manager().addBlock(bytes, s_DontCache);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (size_t i = 0; i < contents; ++i) {
        for (const std::vector<ZebDataReference>& mine : references)
            ASSERT_EQ(mine[i].hashPtr(), references[0][i].hashPtr());
    }
    EXPECT_EQ(manager().managedBlocks(), contents);
    EXPECT_EQ(manager().liveBlocks(), contents);
    EXPECT_EQ(manager().liveBytes(), 11 * contents);
    EXPECT_EQ(StoreInside::residentBlocks(), contents);
}
