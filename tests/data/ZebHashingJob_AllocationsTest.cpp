// Asynchronous additions, and what holds their results, when allocations fail: no block is lost, no
// thread of the pool dies, and what has failed can be done again.

#include "data/ZebHashingJob.h"

#include "data/ZebHashingQueue.h"
#include "data/ZebHashingTask.h"
#include "data/ZebResultCache.h"
#include "data/ZebThreadPoolManager.h"
#include "hash/ZebHashManager.h"
#include "support/BytesOf.h"
#include "support/FailingAllocations.h"
#include "support/Manager.h"
#include "support/MessageCapture.h"
#include "support/Registry.h"
#include "support/TemporaryStore.h"
#include "support/WaitUntil.h"

#include <QThreadPool>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <new>
#include <optional>
#include <thread>
#include <vector>

namespace {

// The name that Qt gives to each thread of a pool.
constexpr const char* s_PoolThread = "Thread (pooled)";

QByteArray numbered(int number)
{
    return QByteArray(3000, 'n') + QByteArray::number(number);
}

// Reduces the hashing pool to one thread and occupies it until open() or the end of the scope.
// Never ends that thread: its end would meet the failures, outside of our code.
class HeldHashingPool
{
public:
    HeldHashingPool()
    {
        pool().setMaxThreadCount(1);
        hold(m_IsOpen);
    }
    ~HeldHashingPool()
    {
        open();
        EXPECT_TRUE(waitUntil([] { return pool().activeThreadCount() == 0; }));
    }
    HeldHashingPool(const HeldHashingPool&) = delete;
    HeldHashingPool& operator=(const HeldHashingPool&) = delete;

    void open() { m_IsOpen.store(true); }

    /// Lets the pool do what waits for it while allocations of its thread fail. Returns how many
    /// have failed. What Qt allocates when the thread falls idle is not among them: Qt does not
    /// survive a failure of that.
    qint64 runFailing(qint64 skipped, qint64 failures)
    {
        std::atomic<bool> isOver{false};
        std::atomic<bool> isReached{false};
        pool().start([&] {
            isReached.store(true);
            while (!isOver.load())
                std::this_thread::yield();
        });
        qint64 failed = 0;
        {
            const FailingAllocations failing(s_PoolThread, skipped, failures);
            open();
            EXPECT_TRUE(waitUntil([&] { return isReached.load(); }));
            failed = failing.failed();
        }
        isOver.store(true);
        EXPECT_TRUE(waitUntil([] { return pool().activeThreadCount() == 0; }));
        return failed;
    }

private:
    static QThreadPool& pool()
    {
        return *ZebThreadPoolManager::instance().threadPool(
            ZebThreadPoolManager::HashingThreadPool);
    }

    static void hold(std::atomic<bool>& isOpen)
    {
        std::atomic<bool> isHeld{false};
        pool().start([&isHeld, &isOpen] {
            isHeld.store(true);
            while (!isOpen.load())
                std::this_thread::yield();
        });
        EXPECT_TRUE(waitUntil([&] { return isHeld.load(); }));
    }

    std::atomic<bool> m_IsOpen{false};
};

class ZebHashingJobAllocations : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!FailingAllocations::isAvailable())
            GTEST_SKIP() << "The allocator of a sanitizer cannot be replaced.";
        m_Store = std::make_unique<TemporaryStore>();
    }

    static void expectNothingListed()
    {
        ZebHashingQueue::TaskPointer taken[1];
        EXPECT_EQ(ZebHashingQueue::instance().takeWaiting(1, 1, 1, taken), 0U);
    }

    std::unique_ptr<TemporaryStore> m_Store;
};

} // namespace

TEST_F(ZebHashingJobAllocations, AnAddThatFailsQueuesNothing)
{
    const int alive = ZebBlockFuture::numHashJobs();
    std::vector<ZebDataReference> references;
    bool hasFailed = true;
    for (int i = 0; hasFailed; ++i) {
        const QByteArray bytes = numbered(i);
        const HeldHashingPool busy;
        try {
            const FailingAllocations failing(FailingAllocations::Here, i);
            references = {manager().addBlock(bytes)};
            hasFailed = failing.failed() != 0;
        } catch (const std::bad_alloc&) {
            hasFailed = true;
            EXPECT_TRUE(bytes.isDetached()) << i;
        }
        if (hasFailed && references.empty()) {
            expectNothingListed();
            EXPECT_EQ(ZebBlockFuture::numHashJobs(), alive) << i;
        }
        if (!references.empty()) {
            EXPECT_EQ(bytesOf(references.front()), bytes) << i;
        }
        references.clear();
    }
}

TEST_F(ZebHashingJobAllocations, ABlockThatThePoolCouldNotAdmitIsReadAllTheSame)
{
    for (int i = 0;; ++i) {
        HeldHashingPool busy;
        const ZebDataReference reference = manager().addBlock(numbered(i));
        const qint64 failed = busy.runFailing(i, 1);
        EXPECT_EQ(bytesOf(reference), numbered(i)) << i;
        if (failed == 0) {
            EXPECT_GT(i, 3) << "no allocation was met";
            return;
        }
    }
}

TEST_F(ZebHashingJobAllocations, ASetThatThePoolCouldNotAdmitIsReadAllTheSame)
{
    constexpr int count = 9;
    std::vector<ZebDataReference> references;
    {
        HeldHashingPool busy;
        for (int i = 0; i < count; ++i) {
            // Alternately by bytes and by block, of which one is compressed.
            auto block = std::make_unique<ZebDataBlock>(numbered(i));
            if (i == 3) {
                EXPECT_TRUE(block->compress(1));
            }
            references.push_back(i % 2 == 0 ? manager().addBlock(numbered(i))
                                            : ZebDataReference(ZebSmartPointer<ZebBlockFuture>(
                                                  new ZebHashingJob(block.release()))));
        }
        EXPECT_GT(busy.runFailing(0, FailingAllocations::s_All), count);
    }
    EXPECT_EQ(manager().liveBytes(), 0);
    for (int i = 0; i < count; ++i) {
        const ZebDataReference& reference = references[static_cast<std::size_t>(i)];
        if (i == 3)
            EXPECT_EQ(reference.constAccessor().size(), numbered(i).size());
        else
            EXPECT_EQ(bytesOf(reference), numbered(i)) << i;
    }
}

TEST_F(ZebHashingJobAllocations, AReadThatFailsMayBeRepeated)
{
    ZebDataReference reference;
    {
        HeldHashingPool busy;
        reference = manager().addBlock(numbered(1));
        busy.runFailing(0, FailingAllocations::s_All);
    }
    const ZebDataReference copy(reference);
    for (int attempt = 0; attempt < 3; ++attempt) {
        const FailingAllocations failing(FailingAllocations::Here, 0, FailingAllocations::s_All);
        EXPECT_THROW(reference.resolveWork(), std::bad_alloc);
    }
    EXPECT_TRUE(reference.hasHashJob());
    EXPECT_EQ(bytesOf(reference), numbered(1));
    EXPECT_EQ(copy.hashPtr(), reference.hashPtr());
}

TEST_F(ZebHashingJobAllocations, TheEndOfAJobAdmitsWhatThePoolCouldNot)
{
    const ZebSmartPointer<ZebDataHash> hash = registry().getHash(numbered(1));
    HeldHashingPool busy;
    {
        const ZebDataReference dropped = manager().addBlock(numbered(1));
        busy.runFailing(0, FailingAllocations::s_All);
        EXPECT_FALSE(manager().isInMemory(hash.data()));
    }
    EXPECT_TRUE(manager().isInMemory(hash.data()));
}

TEST_F(ZebHashingJobAllocations, TheEndOfAJobReportsABlockThatIsLost)
{
    HeldHashingPool busy;
    auto dropped = std::make_optional(manager().addBlock(numbered(1)));
    busy.runFailing(0, FailingAllocations::s_All);
    m_Store.reset();
    const MessageCapture messages;
    // There is no store to admit it, and that must not end the process.
    dropped.reset();
    EXPECT_TRUE(messages.contains("[TDX] A block was lost: out of memory"));
}

TEST_F(ZebHashingJobAllocations, AHashThatCannotBeRegisteredIsDeleted)
{
    const int objects = ZebDataHash::hashCount();
    const int registered = registry().hashCount();
    bool hasFailed = true;
    for (int i = 0; hasFailed; ++i) {
        auto* const fresh = new ZebDataHash(numbered(i), ZebDataHash::Hash512);
        try {
            const FailingAllocations failing(FailingAllocations::Here, i);
            registry().addHash(fresh);
            hasFailed = failing.failed() != 0;
        } catch (const std::bad_alloc&) {
            hasFailed = true;
        }
        EXPECT_EQ(ZebDataHash::hashCount(), objects) << i;
        EXPECT_EQ(registry().hashCount(), registered) << i;
    }
    hasFailed = true;
    for (int i = 0; hasFailed; ++i) {
        try {
            const FailingAllocations failing(FailingAllocations::Here, i);
            registry().getHash(numbered(0));
            hasFailed = failing.failed() != 0;
        } catch (const std::bad_alloc&) {
            hasFailed = true;
        }
        EXPECT_EQ(ZebDataHash::hashCount(), objects) << i;
        EXPECT_EQ(registry().hashCount(), registered) << i;
    }
}

TEST_F(ZebHashingJobAllocations, AFailedCallLeavesTheResultCacheUsable)
{
    ZebResultCache cache;
    const QString key = QStringLiteral("key");
    ZebDataReference reference = manager().addBlock(numbered(1), ZebModifyAccessor::Cached, true);
    for (int i = 0; i < 4; ++i) {
        const FailingAllocations failing(FailingAllocations::Here, i, FailingAllocations::s_All);
        try {
            cache.addResult(key, reference);
            cache.contains(key);
            cache.lookup(key);
            cache.resultCount();
        } catch (const std::bad_alloc&) {
            continue;
        }
    }
    EXPECT_TRUE(cache.addResult(key, reference));
    EXPECT_EQ(cache.lookup(key), reference);
    EXPECT_EQ(cache.resultCount(), 1);
    ZebDataReference other = manager().addBlock(numbered(2), ZebModifyAccessor::Cached, true);
    EXPECT_TRUE(cache.addResult(QStringLiteral("other"), other));
}

TEST_F(ZebHashingJobAllocations, EndsOfAccessorsAndReferencesAllocateNothing)
{
    std::optional<ZebDataReference> reference =
        manager().addBlock(numbered(1), ZebModifyAccessor::Cached, true);
    manager().flush();
    std::optional<ZebConstAccessor> accessor;
    accessor.emplace(reference->constAccessor());
    std::optional<ZebModifyAccessor> copy;
    copy.emplace(reference->modifyAccessor());
    EXPECT_EQ(FailingAllocations::count([&] { accessor.reset(); }), 0);
    EXPECT_EQ(FailingAllocations::count([&] { copy.reset(); }), 0);
    EXPECT_EQ(FailingAllocations::count([&] { const ZebDataReference again(*reference); }), 0);
    EXPECT_EQ(FailingAllocations::count([&] { reference.reset(); }), 0);
}
