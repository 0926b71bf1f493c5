#include "manager/ZebDataBlockManager.h"

#include "data/ZebConstAccessor.h"
#include "data/ZebDataBlock.h"
#include "data/ZebDataReference.h"
#include "data/ZebThreadPoolManager.h"
#include "hash/ZebDataHash.h"
#include "hash/ZebHashManager.h"
#include "support/Fatal.h"
#include "support/PrivateAccess.h"
#include "support/TemporaryStore.h"
#include "support/WaitUntil.h"
#include "support/ZebDataDeleteLocker.h"
#include "support/ZebStoredCall.h"

#include <QSemaphore>
#include <QThreadPool>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <set>
#include <thread>
#include <vector>

using BlockMap = QHash<ZebDataHash*, ZebDataBlock*>;

ZEBTDX_ACCESS(BlockMapTag, ZebDataBlockManager, BlockMap ZebDataBlockManager::*, m_HashToBlockMap)
ZEBTDX_ACCESS(LruTag, ZebDataBlockManager, ZebDataBlockLru ZebDataBlockManager::*, m_Lru)
ZEBTDX_ACCESS(AddBlockTag, ZebDataBlockManager,
              ZebDataReference (ZebDataBlockManager::*)(ZebDataBlock*, ZebModifyAccessor::Caching,
                                                        bool),
              addBlock)

namespace {

constexpr int s_DeadlineMs = 20000;
constexpr int s_HeldOffMs = 100;

constexpr auto s_Cached = ZebModifyAccessor::Cached;
constexpr auto s_DontCache = ZebModifyAccessor::DontCache;

ZebDataBlockManager& manager()
{
    return ZebDataBlockManager::instance();
}

// A block that counts its end.
class CountedBlock : public ZebDataBlock
{
public:
    CountedBlock(const QByteArray& bytes, std::atomic<int>* ended)
        : ZebDataBlock(bytes), m_Ended(ended)
    {}
    ~CountedBlock() override { ++*m_Ended; }

private:
    std::atomic<int>* m_Ended;
};

ZebDataReference addBlock(ZebDataBlock* block, ZebModifyAccessor::Caching caching, bool immediate)
{
    return (manager().*privateMember(AddBlockTag()))(block, caching, immediate);
}

const BlockMap& blockMap()
{
    return manager().*privateMember(BlockMapTag());
}

bool isListed(const ZebDataReference& reference)
{
    return (manager().*privateMember(LruTag())).contains(reference.hashPtr().data());
}

QByteArray bytesOf(const ZebDataReference& reference)
{
    const ZebConstAccessor accessor = reference.constAccessor();
    return QByteArray(reinterpret_cast<const char*>(accessor.data()),
                      static_cast<int>(accessor.size()));
}

// Keeps every thread of the hashing pool busy, so that no job begins by itself.
class BusyHashingPool
{
public:
    BusyHashingPool()
        : m_Pool(
              ZebThreadPoolManager::instance().threadPool(ZebThreadPoolManager::HashingThreadPool))
    {
        for (int i = 0; i < m_Pool->maxThreadCount(); ++i) {
            m_Blockers.push_back(ZebStoredCall::start<bool>(m_Pool, [this] {
                m_Begun.release();
                return m_Release.tryAcquire(1, s_DeadlineMs);
            }));
        }
        m_Begun.acquire(m_Pool->maxThreadCount());
    }
    ~BusyHashingPool() { release(); }

    void release()
    {
        m_Release.release(static_cast<int>(m_Blockers.size()));
        for (QFuture<bool>& blocker : m_Blockers)
            EXPECT_TRUE(blocker.result());
        m_Blockers.clear();
        EXPECT_TRUE(m_Pool->waitForDone(s_DeadlineMs));
    }

private:
    QSemaphore m_Begun;
    QSemaphore m_Release;
    QThreadPool* m_Pool;
    std::vector<QFuture<bool>> m_Blockers;
};

// Whether `operation`, on another thread, waits for the delete lock that this one holds.
bool waitsForTheDeleteLock(int waitMs, const std::function<void()>& operation)
{
    QSemaphore started;
    QSemaphore ended;
    std::thread thread;
    bool waited = false;
    {
        const ZebDataDeleteLocker locker;
        thread = std::thread([&] {
            started.release();
            operation();
            ended.release();
        });
        started.acquire();
        waited = !ended.tryAcquire(1, waitMs);
    }
    if (waited) {
        EXPECT_TRUE(ended.tryAcquire(1, s_DeadlineMs));
    }
    thread.join();
    return waited;
}

} // namespace

TEST(ZebDataBlockManagerAdmission, EqualCachedBytesAreOneBlockOfOneHash)
{
    const TemporaryStore store;
    const ZebDataReference one = manager().addBlock("a", s_Cached);
    const ZebDataReference two = manager().addBlock("a", s_Cached, true);
    EXPECT_EQ(one.hashPtr(), two.hashPtr());
    EXPECT_EQ(one.hash(), two.hash());
    EXPECT_EQ(blockMap().size(), 1);
    EXPECT_EQ(manager().liveBytes(), 1);
    EXPECT_EQ(manager().managedBlocks(), 1);
}

TEST(ZebDataBlockManagerAdmission, EqualDontCacheBytesAreTwoBlocksOfTwoHashes)
{
    const TemporaryStore store;
    const ZebDataReference one = manager().addBlock("a", s_DontCache);
    const ZebDataReference two = manager().addBlock("a", s_DontCache);
    EXPECT_NE(one.hash(), two.hash());
    EXPECT_NE(one.hashPtr(), two.hashPtr());
    EXPECT_EQ(blockMap().size(), 2);
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

TEST(ZebDataBlockManagerAdmission, ADontCacheBlockHasAFreshIdentityOfItsOwn)
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
    // The bytes themselves lead nowhere.
    EXPECT_FALSE(
        ZebHashManager::instance().isHashLive(ZebDataHash(bytes, ZebDataHash::Hash512).toString()));
}

TEST(ZebDataBlockManagerAdmission, ADontCacheBlockIsInterned)
{
    const TemporaryStore store;
    const ZebDataReference reference = manager().addBlock("bytes", s_DontCache);
    EXPECT_TRUE(ZebHashManager::instance().isHashLive(reference.hash()));
    const ZebSmartPointer<ZebDataHash> found = ZebHashManager::instance().getHash(reference.hash());
    EXPECT_EQ(found, reference.hashPtr());
    EXPECT_TRUE(blockMap().contains(found.data()));
}

TEST(ZebDataBlockManagerAdmission, ADontCacheBlockCountsItsBytesAndIsNeverEvictable)
{
    const TemporaryStore store;
    const ZebDataReference reference = manager().addBlock("12345", s_DontCache);
    EXPECT_EQ(manager().liveBytes(), 5);
    EXPECT_EQ(manager().liveBlocks(), 0);
    EXPECT_FALSE(isListed(reference));
    EXPECT_TRUE(reference.isInMemory());
    bytesOf(reference);
    EXPECT_EQ(manager().liveBlocks(), 0);
}

TEST(ZebDataBlockManagerAdmission, ADontCacheBlockGoesWithItsLastReference)
{
    std::atomic<int> ended{0};
    const TemporaryStore store;
    const ZebDataReference other = manager().addBlock("cached", s_Cached, true);
    {
        const ZebDataReference first =
            addBlock(new CountedBlock("12345", &ended), s_DontCache, true);
        const ZebDataReference second = first;
        EXPECT_EQ(manager().liveBytes(), 11);
        EXPECT_EQ(manager().liveBlocks(), 1);
    }
    EXPECT_EQ(ended, 1);
    EXPECT_EQ(manager().liveBytes(), 6);
    EXPECT_EQ(manager().liveBlocks(), 1);
    EXPECT_EQ(manager().managedBlocks(), 1);
}

TEST(ZebDataBlockManagerAdmission, ImmediateMakesNoDifferenceToADontCacheBlock)
{
    const TemporaryStore store;
    const BusyHashingPool busy;
    for (const bool immediate : {false, true}) {
        const ZebDataReference reference = manager().addBlock("a", s_DontCache, immediate);
        EXPECT_FALSE(reference.hasHashJob());
        EXPECT_TRUE(blockMap().contains(reference.hashPtr().data()));
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
    EXPECT_TRUE(blockMap().contains(reference.hashPtr().data()));
    EXPECT_TRUE(isListed(reference));
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
    EXPECT_TRUE(blockMap().isEmpty());
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
    // The question itself runs the job, with the pool too busy to.
    const BusyHashingPool busy;
    const ZebDataReference reference = manager().addBlock("bytes", s_Cached, false);
    EXPECT_TRUE(reference.isInMemory());
    EXPECT_FALSE(reference.hasHashJob());
    EXPECT_EQ(manager().liveBytes(), 5);
}

TEST(ZebDataBlockManagerAdmission, DefaultsAreACachedBlockOfAJob)
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
    EXPECT_TRUE(blockMap().isEmpty());
    EXPECT_EQ(manager().managedBlocks(), 0);
}

TEST(ZebDataBlockManagerAdmission, TheGivenBlockItselfBecomesResident)
{
    const TemporaryStore store;
    for (const auto caching : {s_Cached, s_DontCache}) {
        auto* const block = new ZebDataBlock(QByteArray(1, static_cast<char>('a' + caching)));
        const ZebDataReference reference = addBlock(block, caching, true);
        EXPECT_EQ(blockMap().value(reference.hashPtr().data()), block);
    }
    auto* const pending = new ZebDataBlock("pending");
    const ZebDataReference reference = addBlock(pending, s_Cached, false);
    EXPECT_EQ(blockMap().value(reference.hashPtr().data()), pending);
}

TEST(ZebDataBlockManagerAdmission, ADuplicateThatIsGivenIsDeleted)
{
    std::atomic<int> ended{0};
    const TemporaryStore store;
    const ZebDataReference first = manager().addBlock("bytes", s_Cached, true);
    ZebDataBlock* const resident = blockMap().value(first.hashPtr().data());
    for (const bool immediate : {true, false}) {
        ended = 0;
        const ZebDataReference again =
            addBlock(new CountedBlock("bytes", &ended), s_Cached, immediate);
        again.resolveWork();
        EXPECT_EQ(ended, 1) << immediate;
        EXPECT_EQ(again, first);
    }
    EXPECT_EQ(blockMap().value(first.hashPtr().data()), resident);
    EXPECT_EQ(manager().liveBytes(), 5);
}

TEST(ZebDataBlockManagerAdmission, AReferenceOnAHashHoldsIt)
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

TEST(ZebDataBlockManagerAdmission, AReferenceOnNoHashIsNull)
{
    const TemporaryStore store;
    EXPECT_TRUE(manager().getReference(nullptr).isNull());
}

TEST(ZebDataBlockManagerAdmission, WhatAdmitsAtOnceTakesTheDeleteLock)
{
    const TemporaryStore store;
    const auto waits = [](const std::function<void()>& operation) {
        return waitsForTheDeleteLock(s_HeldOffMs, operation);
    };
    EXPECT_TRUE(waits([] { manager().addBlock("a", s_DontCache); }));
    EXPECT_TRUE(waits([] { manager().addBlock("b", s_Cached, true); }));
    EXPECT_TRUE(waits([] { addBlock(new ZebDataBlock("c"), s_DontCache, true); }));
    EXPECT_TRUE(waits([] { addBlock(new ZebDataBlock("d"), s_Cached, true); }));
    EXPECT_TRUE(waits([] { manager().getReference(nullptr); }));
}

TEST(ZebDataBlockManagerAdmission, WhatAdmitsAtOnceInternsItsHashUnderTheDeleteLock)
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
        QSemaphore started;
        QSemaphore ended;
        std::thread thread;
        {
            const ZebDataDeleteLocker locker;
            thread = std::thread([&] {
                started.release();
                reference = operation();
                ended.release();
            });
            started.acquire();
            EXPECT_FALSE(ended.tryAcquire(1, s_HeldOffMs));
            EXPECT_EQ(manager().managedBlocks(), before);
        }
        thread.join();
        EXPECT_EQ(manager().managedBlocks(), before + 1);
        references.push_back(reference);
    }
}

TEST(ZebDataBlockManagerAdmission, WhatLeavesTheWorkToAJobLocksNothing)
{
    const TemporaryStore store;
    BusyHashingPool busy;
    ZebDataReference bytes;
    ZebDataReference given;
    EXPECT_FALSE(waitsForTheDeleteLock(s_DeadlineMs, [&] { bytes = manager().addBlock("a"); }));
    EXPECT_FALSE(waitsForTheDeleteLock(
        s_DeadlineMs, [&] { given = addBlock(new ZebDataBlock("b"), s_Cached, false); }));
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

TEST(ZebDataBlockManagerAdmission, AStoreWithoutRootsTakesDontCacheBlocksOnly)
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

TEST(ZebDataBlockManagerAdmission, ManyThreadsAdmitTheSameContentsOnce)
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
    EXPECT_EQ(blockMap().size(), contents);
}
