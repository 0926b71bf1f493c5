// The reader when an allocation fails: a load fails as a whole, loses nothing, and can be repeated.

#include "data/ZebDataReference.h"
#include "io/ZebDataBlockReadThread.h"
#include "support/BlockFiles.h"
#include "support/BytesOf.h"
#include "support/FailingAllocations.h"
#include "support/ReaderInside.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"
#include "support/WaitUntil.h"

#include <QThreadPool>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <new>

namespace {

using StoreInside::manager;

// A store with one evicted block, and a reader of its root that is not started.
class ZebDataBlockReadThreadAllocations : public ::testing::Test
{
protected:
    ZebDataBlockReadThreadAllocations()
        : m_Plain(BlockFiles::incompressible(100000)),
          m_Reference(manager().addBlock(m_Plain, ZebModifyAccessor::Cached, true)),
          m_Hash(m_Reference.hashPtr()),
          m_Reader(m_Store.roots().first(), 10, 50, nullptr)
    {
        manager().flush();
        manager().freeAllBlocks();
        // One thread, which exists: what Qt does to start another cannot fail in a defined way.
        QThreadPool::globalInstance()->setMaxThreadCount(1);
        QThreadPool::globalInstance()->start([this] { m_PoolHasThread = true; });
        EXPECT_TRUE(waitUntil([this] { return m_PoolHasThread.load(); }));
    }

    // As Qt names the threads of a pool.
    static constexpr const char* s_Pool = "Thread (pooled)";

    void SetUp() override
    {
        if (!FailingAllocations::isAvailable())
            GTEST_SKIP() << "The allocator of a sanitizer cannot be replaced.";
    }

    // Fails each allocation of `load` once, until it makes fewer; `where` says on which thread.
    // After each failure the block can be loaded.
    template <typename Where, typename Load>
    void failEach(Where where, Load load)
    {
        int failures = 0;
        for (int i = 0;; ++i) {
            SCOPED_TRACE(i);
            m_Hash->setPreloading(true);
            const int references = m_Hash->refCount();
            qint64 failed = 0;
            {
                const FailingAllocations failing(where, i);
                load();
                failed = failing.failed();
            }
            EXPECT_FALSE(m_Hash->isPreloading());
            EXPECT_EQ(m_Hash->refCount(), references);
            expectLoadable();
            if (failed == 0)
                break;
            ++failures;
        }
        EXPECT_GT(failures, 3);
    }

    void expectLoadable()
    {
        EXPECT_EQ(bytesOf(m_Reference), m_Plain);
        manager().freeAllBlocks();
        ASSERT_FALSE(m_Reference.isInMemory());
        EXPECT_EQ(m_Reader.requests(), 0) << "its lock is free";
    }

    // Ends, and gives the block or nothing.
    void load(bool makeLive)
    {
        QFuture<ZebDataBlock*> future = m_Reader.loadBlock(m_Hash, makeLive);
        future.waitForFinished();
        EXPECT_TRUE(future.isFinished());
        if (future.resultCount() == 0) {
            EXPECT_TRUE(future.isCanceled());
            return;
        }
        if (makeLive)
            return;
        const std::unique_ptr<ZebDataBlock> block(future.result());
        EXPECT_EQ(block->size(), m_Plain.size());
    }

    const QByteArray m_Plain;
    TemporaryStore m_Store;
    ZebDataReference m_Reference;
    ZebSmartPointer<ZebDataHash> m_Hash;
    ZebDataBlockReadThread m_Reader;
    std::atomic<bool> m_PoolHasThread{false};
};

} // namespace

TEST_F(ZebDataBlockReadThreadAllocations, ALoadOnTheCallingThreadFailsAsAWhole)
{
    failEach(FailingAllocations::Here, [this] { load(false); });
}

TEST_F(ZebDataBlockReadThreadAllocations, ALoadThatFailsOnThePoolIsCancelled)
{
    failEach(s_Pool, [this] {
        // The pool has it: a thread that waits for the result would do it itself.
        QFuture<ZebDataBlock*> future = m_Reader.loadBlock(m_Hash, false);
        EXPECT_TRUE(pollUntil([&future] { return future.isFinished(); }, 20000));
        if (future.resultCount() == 0) {
            EXPECT_TRUE(future.isCanceled());
            return;
        }
        const std::unique_ptr<ZebDataBlock> block(future.result());
        EXPECT_EQ(block->size(), m_Plain.size());
    });
}

TEST_F(ZebDataBlockReadThreadAllocations, APreloadThatFailsOnThePoolMakesNoEmptyBlockResident)
{
    failEach(s_Pool, [this] {
        QFuture<ZebDataBlock*> future = m_Reader.loadBlock(m_Hash, true);
        EXPECT_TRUE(pollUntil([&future] { return future.isFinished(); }, 20000));
        if (m_Reference.isInMemory()) {
            EXPECT_EQ(manager().liveBytes(), m_Plain.size());
        }
    });
}

TEST_F(ZebDataBlockReadThreadAllocations, AnAccessorIsNullOrHasTheBytes)
{
    failEach(FailingAllocations::Here, [this] {
        try {
            const ZebConstAccessor accessor = m_Reference.constAccessor();
            EXPECT_TRUE(accessor.isNull() || accessor.size() == m_Plain.size());
        } catch (const std::bad_alloc&) {
            // The tables of the store, on the host's own thread.
        }
    });
}

TEST_F(ZebDataBlockReadThreadAllocations, ATaskThatRunsOutOfMemoryThrowsInsteadOfMakingABlock)
{
    const QByteArray payload = qCompress(m_Plain, 2);
    int thrown = 0;
    for (int i = 0;; ++i) {
        qint64 failed = 0;
        try {
            const FailingAllocations failing(FailingAllocations::Here, i);
            const std::unique_ptr<ZebDataBlock> block(
                ReaderInside::decompressAndMakeBlock(payload, m_Hash, false, 0));
            failed = failing.failed();
            EXPECT_EQ(block->size(), m_Plain.size()) << i;
        } catch (const std::bad_alloc&) {
            ++thrown;
            continue;
        }
        if (failed == 0)
            break;
    }
    EXPECT_GT(thrown, 2);
}

TEST_F(ZebDataBlockReadThreadAllocations, TheThreadSurvivesAndTheHashCanBeRequestedAgain)
{
    m_Reader.setObjectName("read alloc test");
    m_Reader.start();
    int failures = 0;
    for (int i = 0;; ++i) {
        SCOPED_TRACE(i);
        qint64 failed = 0;
        const int handled = m_Reader.requestsHandled();
        {
            const FailingAllocations failing("read alloc test", i);
            m_Reader.request(m_Hash.data(), ZebDataBlockManager::PreloadNormal);
            ASSERT_TRUE(waitUntil([&] { return m_Reader.requestsHandled() == handled + 1; }));
            // Either the block is resident or the request has failed.
            ASSERT_TRUE(waitUntil([this] { return !m_Hash->isPreloading(); }));
            failed = failing.failed();
        }
        EXPECT_TRUE(m_Reader.isRunning());
        expectLoadable();
        if (failed == 0)
            break;
        ++failures;
    }
    EXPECT_GT(failures, 3);
    m_Reader.closeDown();
    EXPECT_TRUE(m_Reader.wait(20000));
}

TEST_F(ZebDataBlockReadThreadAllocations, ARequestIsListedAndMarkedOrNeither)
{
    for (int i = 0;; ++i) {
        qint64 failed = 0;
        try {
            const FailingAllocations failing(FailingAllocations::Here, i);
            m_Reader.request(m_Hash.data(), ZebDataBlockManager::PreloadNormal);
            failed = failing.failed();
        } catch (const std::bad_alloc&) {
            EXPECT_FALSE(m_Hash->isPreloading());
            EXPECT_EQ(m_Reader.requests(), 0);
            continue;
        }
        EXPECT_EQ(m_Reader.requests(), 1);
        EXPECT_TRUE(m_Hash->isPreloading());
        m_Reader.killRequests();
        m_Hash->setPreloading(false);
        if (failed == 0)
            break;
    }
}

TEST_F(ZebDataBlockReadThreadAllocations, AFlushAndTheSubCacheNeedNoMemory)
{
    for (int i = 0; i < 3; ++i) {
        const FailingAllocations failing(FailingAllocations::Here, i, FailingAllocations::s_All);
        m_Reader.flush();
        m_Reader.subCache();
    }
    m_Reader.setSubCache("Sub");
    EXPECT_EQ(m_Reader.subCache(), "Sub");
}
