#include "data/ZebResultCache.h"

#include "data/ZebHashingJob.h"
#include "hash/ZebHashManager.h"
#include "support/BlockedThread.h"
#include "support/ResultCacheInside.h"
#include "support/TemporaryStore.h"
#include "support/WaitUntil.h"

#include <QReadLocker>
#include <QSemaphore>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

const QString s_A = QStringLiteral("a");
const QString s_B = QStringLiteral("b");

// References need no store: they own hashes.
ZebDataReference resolved(const char* content)
{
    return ZebDataReference(ZebHashManager::instance().getHash(QByteArray(content)));
}

// A future whose work ends when the test calls end().
class HeldFuture : public ZebBlockFuture
{
public:
    explicit HeldFuture(const char* content) : m_Yield(resolved(content)) {}

    ZebDataReference data() override
    {
        m_WasCalled = true;
        m_MayEnd.acquire();
        m_MayEnd.release();
        return m_Yield;
    }

    void end() { m_MayEnd.release(); }
    bool wasCalled() const { return m_WasCalled; }

private:
    ZebDataReference m_Yield;
    QSemaphore m_MayEnd;
    std::atomic<bool> m_WasCalled{false};
};

// Whether another thread gets the lock for reading at this moment.
bool isFreeForReading(QReadWriteLock& lock)
{
    bool taken = false;
    std::thread([&lock, &taken] {
        taken = lock.tryLockForRead();
        if (taken)
            lock.unlock();
    }).join();
    return taken;
}

} // namespace

TEST(ZebResultCache, CannotBeCopied)
{
    EXPECT_TRUE(std::is_default_constructible_v<ZebResultCache>);
    EXPECT_FALSE(std::is_copy_constructible_v<ZebResultCache>);
    EXPECT_FALSE(std::is_copy_assignable_v<ZebResultCache>);
    EXPECT_FALSE(std::is_polymorphic_v<ZebResultCache>);
}

TEST(ZebResultCache, StartsEmptyAndEnabled)
{
    const ZebResultCache cache;
    EXPECT_EQ(cache.resultCount(), 0);
    EXPECT_EQ(cache.cacheHits(), 0);
    EXPECT_FALSE(cache.contains(s_A));
    EXPECT_TRUE(cache.lookup(s_A).isNull());
    EXPECT_EQ(cache.cacheHits(), 0);
}

TEST(ZebResultCache, FindsWhatWasStored)
{
    ZebResultCache cache;
    ZebDataReference one = resolved("one");
    ZebDataReference two = resolved("two");
    EXPECT_TRUE(cache.addResult(s_A, one));
    EXPECT_TRUE(cache.contains(s_A));
    EXPECT_FALSE(cache.contains(s_B));
    EXPECT_EQ(cache.lookup(s_A), one);
    EXPECT_EQ(cache.cacheHits(), 1);
    EXPECT_TRUE(cache.addResult(s_B, two));
    EXPECT_EQ(cache.lookup(s_B), two);
    EXPECT_EQ(cache.lookup(s_A), one);
    EXPECT_EQ(cache.cacheHits(), 3);
    EXPECT_EQ(cache.resultCount(), 2);
}

TEST(ZebResultCache, KeysAreComparedExactly)
{
    ZebResultCache cache;
    ZebDataReference one = resolved("one");
    EXPECT_TRUE(cache.addResult(QString(), one));
    EXPECT_TRUE(cache.contains(QStringLiteral("")));
    EXPECT_FALSE(cache.contains(s_A));
    EXPECT_TRUE(cache.addResult(s_A, one));
    EXPECT_FALSE(cache.contains(QStringLiteral("A")));
    EXPECT_EQ(cache.resultCount(), 2);
}

TEST(ZebResultCache, FirstResultUnderAKeyStays)
{
    ZebResultCache cache;
    ZebDataReference first = resolved("first");
    ZebDataReference later = resolved("later");
    EXPECT_TRUE(cache.addResult(s_A, first));
    EXPECT_TRUE(cache.addResult(s_A, later));
    EXPECT_EQ(cache.lookup(s_A), first);
    EXPECT_EQ(cache.resultCount(), 1);
    EXPECT_EQ(later, resolved("later"));
}

TEST(ZebResultCache, ResultAddedBetweenLookupAndInsertionIsReplaced)
{
    ZebResultCache cache;
    QReadWriteLock& lock = ResultCacheInside::lock(cache);
    ZebDataReference earlier = resolved("earlier");
    ZebDataReference later = resolved("later");
    std::unique_ptr<BlockedThread> adding;
    {
        const QReadLocker locker(&lock);
        adding = std::make_unique<BlockedThread>([&] { EXPECT_TRUE(cache.addResult(s_A, later)); });
        // It has found no result and waits to write.
        EXPECT_TRUE(adding->waitsFor(lock));
        ResultCacheInside::results(cache).insert(s_A, earlier);
    }
    EXPECT_TRUE(adding->ends());
    EXPECT_EQ(cache.lookup(s_A), later);
    EXPECT_EQ(cache.resultCount(), 1);
}

TEST(ZebResultCache, DropsWhatItReplacesWithItsLockFree)
{
    ZebResultCache cache;
    QReadWriteLock& lock = ResultCacheInside::lock(cache);
    // A future whose destructor checks the lock.
    class LastFuture : public ZebBlockFuture
    {
    public:
        LastFuture(QReadWriteLock* guard, std::atomic<bool>* wasFree)
            : m_Guard(guard), m_WasFree(wasFree)
        {}
        ~LastFuture() override { *m_WasFree = isFreeForReading(*m_Guard); }
        ZebDataReference data() override { return {}; }

    private:
        QReadWriteLock* m_Guard;
        std::atomic<bool>* m_WasFree;
    };
    std::atomic<bool> wasFree{false};
    ZebDataReference later = resolved("later");
    std::unique_ptr<BlockedThread> adding;
    {
        const QReadLocker locker(&lock);
        adding = std::make_unique<BlockedThread>([&] { EXPECT_TRUE(cache.addResult(s_A, later)); });
        EXPECT_TRUE(adding->waitsFor(lock));
        ResultCacheInside::results(cache).insert(
            s_A,
            ZebDataReference(ZebSmartPointer<ZebBlockFuture>(new LastFuture(&lock, &wasFree))));
    }
    EXPECT_TRUE(adding->ends());
    EXPECT_TRUE(wasFree);
}

TEST(ZebResultCache, DisabledCacheBehavesAsEmptyAndKeepsItsResults)
{
    ZebResultCache cache;
    ZebDataReference one = resolved("one");
    ZebDataReference two = resolved("two");
    ASSERT_TRUE(cache.addResult(s_A, one));
    cache.setEnabled(false);
    EXPECT_FALSE(cache.addResult(s_B, two));
    EXPECT_FALSE(cache.addResult(s_A, two));
    EXPECT_FALSE(cache.contains(s_A));
    EXPECT_TRUE(cache.lookup(s_A).isNull());
    EXPECT_EQ(cache.cacheHits(), 0);
    EXPECT_EQ(cache.resultCount(), 1);
    cache.setEnabled(true);
    EXPECT_TRUE(cache.contains(s_A));
    EXPECT_FALSE(cache.contains(s_B));
    EXPECT_EQ(cache.lookup(s_A), one);
    EXPECT_EQ(cache.cacheHits(), 1);
    EXPECT_TRUE(cache.addResult(s_B, two));
    EXPECT_EQ(cache.resultCount(), 2);
}

TEST(ZebResultCache, NullReferenceIsAResult)
{
    ZebResultCache cache;
    ZebDataReference null;
    EXPECT_TRUE(cache.addResult(s_A, null));
    EXPECT_TRUE(cache.contains(s_A));
    EXPECT_TRUE(cache.lookup(s_A).isNull());
    EXPECT_EQ(cache.cacheHits(), 1);
    ZebDataReference one = resolved("one");
    EXPECT_TRUE(cache.addResult(s_A, one));
    EXPECT_TRUE(cache.lookup(s_A).isNull());
}

TEST(ZebResultCache, PendingResultStaysPendingUntilItsCopyResolvesIt)
{
    auto* const future = new HeldFuture("held");
    ZebDataReference pending{ZebSmartPointer<ZebBlockFuture>(future)};
    ZebResultCache cache;
    EXPECT_TRUE(cache.addResult(s_A, pending));
    const ZebDataReference copy = cache.lookup(s_A);
    EXPECT_TRUE(copy.hasHashJob());
    EXPECT_EQ(copy, pending);
    // No operation so far has called data(), so none can have waited for it.
    EXPECT_FALSE(future->wasCalled());
    future->end();
    copy.resolveWork();
    EXPECT_FALSE(copy.hasHashJob());
    EXPECT_EQ(copy, resolved("held"));
    // Each copy resolves on its own: the passed and the stored reference are unchanged.
    EXPECT_TRUE(pending.hasHashJob());
    EXPECT_TRUE(cache.lookup(s_A).hasHashJob());
    EXPECT_EQ(cache.lookup(s_A).hash(), copy.hash());
}

TEST(ZebResultCache, ResolvedResultIsStoredResolved)
{
    ZebResultCache cache;
    ZebDataReference one = resolved("one");
    EXPECT_TRUE(cache.addResult(s_A, one));
    EXPECT_FALSE(cache.lookup(s_A).hasHashJob());
}

TEST(ZebResultCache, KeepsTheHashRegisteredUntilItsEnd)
{
    const int hashes = ZebHashManager::instance().hashCount();
    const int references = ZebDataReference::referenceCount();
    {
        ZebResultCache cache;
        for (int i = 0; i < 10; ++i) {
            ZebDataReference reference = resolved(QByteArray::number(i).constData());
            EXPECT_TRUE(cache.addResult(QString::number(i), reference));
        }
        cache.setEnabled(false);
        EXPECT_EQ(ZebHashManager::instance().hashCount(), hashes + 10);
        EXPECT_EQ(ZebDataReference::referenceCount(), references + 10);
    }
    EXPECT_EQ(ZebHashManager::instance().hashCount(), hashes);
    EXPECT_EQ(ZebDataReference::referenceCount(), references);
}

TEST(ZebResultCache, LeavesTheMemoryOfABlockToTheStore)
{
    const TemporaryStore store;
    ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    ZebResultCache cache;
    {
        ZebDataReference reference = manager.addBlock(QByteArray(1000, 'r'));
        EXPECT_TRUE(cache.addResult(s_A, reference));
        reference.resolveWork();
    }
    manager.flush(true);
    manager.freeAllBlocks();
    EXPECT_EQ(manager.liveBytes(), 0);
    const ZebDataReference found = cache.lookup(s_A);
    EXPECT_FALSE(found.isInMemory());
    const ZebConstAccessor accessor = found.constAccessor();
    ASSERT_FALSE(accessor.isNull());
    EXPECT_EQ(accessor.size(), 1000);
    EXPECT_EQ(accessor.data()[999], 'r');
}

TEST(ZebResultCache, DestructorWaitsForJobsThatOnlyTheCacheHolds)
{
    const TemporaryStore store;
    const int jobs = ZebBlockFuture::numHashJobs();
    {
        ZebResultCache cache;
        for (int i = 0; i < 20; ++i) {
            ZebDataReference pending =
                ZebDataBlockManager::instance().addBlock(QByteArray(4096, static_cast<char>(i)));
            EXPECT_TRUE(cache.addResult(QString::number(i), pending));
        }
        EXPECT_EQ(ZebBlockFuture::numHashJobs(), jobs + 20);
    }
    EXPECT_EQ(ZebBlockFuture::numHashJobs(), jobs);
}

TEST(ZebResultCache, ReadingThreadsShareTheLock)
{
    ZebResultCache cache;
    ZebDataReference one = resolved("one");
    ASSERT_TRUE(cache.addResult(s_A, one));
    QReadWriteLock& lock = ResultCacheInside::lock(cache);
    const QReadLocker locker(&lock);
    BlockedThread reading([&] {
        EXPECT_TRUE(cache.contains(s_A));
        EXPECT_EQ(cache.lookup(s_A), one);
        EXPECT_EQ(cache.resultCount(), 1);
    });
    EXPECT_TRUE(reading.ends());
}

TEST(ZebResultCache, ManyThreadsShareACache)
{
    constexpr int threadCount = 4;
    constexpr int keys = 200;
    ZebResultCache cache;
    std::vector<ZebDataReference> results;
    for (int i = 0; i < keys; ++i)
        results.push_back(resolved(QByteArray::number(i).constData()));
    std::atomic<int> wrong{0};
    std::atomic<int> found{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < threadCount; ++thread) {
        threads.emplace_back([&, thread] {
            for (int step = 0; step < keys; ++step) {
                const int i = (step + thread * keys / threadCount) % keys;
                // One reference belongs to one thread, so this one works on a copy.
                ZebDataReference mine(results[static_cast<std::size_t>(i)]);
                if (!cache.addResult(QString::number(i), mine))
                    ++wrong;
                if (!cache.contains(QString::number(i)) || cache.lookup(QString::number(i)) != mine)
                    ++wrong;
                ++found;
                if (!cache.lookup(QStringLiteral("never")).isNull())
                    ++wrong;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(cache.resultCount(), keys);
    EXPECT_EQ(cache.cacheHits(), found);
}
