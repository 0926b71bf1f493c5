#include "support/ZebDataDeleteLocker.h"

#include "manager/ZebDataBlockManager.h"
#include "support/MessageCapture.h"
#include "support/PrivateAccess.h"
#include "support/TemporaryStore.h"
#include "support/ZebTdxMutex.h"

#include <QSemaphore>

#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <type_traits>

ZEBTDX_ACCESS(DeleteMutexTag, ZebDataBlockManager, ZebTdxMutex ZebDataBlockManager::*,
              m_DeleteMutex)

namespace {

constexpr int s_DeadlineMs = 20000;

// Whether another thread finds the delete lock free at this moment.
bool isDeleteLockFree()
{
    ZebTdxMutex& mutex = ZebDataBlockManager::instance().*privateMember(DeleteMutexTag());
    bool taken = false;
    std::thread([&] {
        taken = mutex.tryLock();
        if (taken)
            mutex.unlock();
    }).join();
    return taken;
}

} // namespace

TEST(ZebDataDeleteLocker, HasNoFields)
{
    EXPECT_TRUE(std::is_empty_v<ZebDataDeleteLocker>);
    EXPECT_FALSE(std::is_polymorphic_v<ZebDataDeleteLocker>);
}

TEST(ZebDataDeleteLocker, HoldsTheDeleteLockForItsScope)
{
    const TemporaryStore store;
    EXPECT_TRUE(isDeleteLockFree());
    {
        const ZebDataDeleteLocker locker;
        EXPECT_FALSE(isDeleteLockFree());
    }
    EXPECT_TRUE(isDeleteLockFree());
}

TEST(ZebDataDeleteLocker, WorksOnAStoreThatIsNotSetUp)
{
    const MessageCapture messages;
    ASSERT_FALSE(ZebDataBlockManager::instance().isInitialized());
    {
        const ZebDataDeleteLocker locker;
        EXPECT_FALSE(isDeleteLockFree());
    }
    EXPECT_TRUE(isDeleteLockFree());
}

TEST(ZebDataDeleteLocker, NestsInOneThread)
{
    const MessageCapture messages;
    auto outer = std::make_unique<ZebDataDeleteLocker>();
    auto inner = std::make_unique<ZebDataDeleteLocker>();
    outer.reset();
    EXPECT_FALSE(isDeleteLockFree());
    inner.reset();
    EXPECT_TRUE(isDeleteLockFree());
}

TEST(ZebDataDeleteLocker, AssignmentDoesNothing)
{
    const MessageCapture messages;
    auto target = std::make_unique<ZebDataDeleteLocker>();
    {
        const ZebDataDeleteLocker source;
        EXPECT_EQ(&(*target = source), target.get());
    }
    // One level for each of the two, before and after.
    EXPECT_FALSE(isDeleteLockFree());
    target.reset();
    EXPECT_TRUE(isDeleteLockFree());
}

TEST(ZebDataDeleteLocker, HoldsOffOtherThreads)
{
    const MessageCapture messages;
    QSemaphore started;
    QSemaphore entered;
    auto mine = std::make_unique<ZebDataDeleteLocker>();
    std::thread thread([&] {
        started.release();
        const ZebDataDeleteLocker theirs;
        entered.release();
    });
    started.acquire();
    EXPECT_FALSE(entered.tryAcquire(1, 100));
    mine.reset();
    EXPECT_TRUE(entered.tryAcquire(1, s_DeadlineMs));
    thread.join();
}
