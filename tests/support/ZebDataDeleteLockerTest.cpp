#include "support/ZebDataDeleteLocker.h"

#include "support/BlockedThread.h"
#include "support/IsFree.h"
#include "support/MessageCapture.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"

#include <gtest/gtest.h>

#include <memory>
#include <type_traits>

namespace {

bool isDeleteLockFree()
{
    return isFree(StoreInside::deleteLock());
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
    ASSERT_FALSE(manager().isInitialized());
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
    // Each locker still holds one level of the lock.
    EXPECT_FALSE(isDeleteLockFree());
    target.reset();
    EXPECT_TRUE(isDeleteLockFree());
}

TEST(ZebDataDeleteLocker, BlocksOtherThreads)
{
    const MessageCapture messages;
    auto mine = std::make_unique<ZebDataDeleteLocker>();
    BlockedThread thread([] { const ZebDataDeleteLocker theirs; });
    EXPECT_TRUE(thread.waitsFor(StoreInside::deleteLock()));
    mine.reset();
    EXPECT_TRUE(thread.ends());
}
