#include "support/ZebTdxMutex.h"

#include "support/BlockedThread.h"
#include "support/IsFree.h"
#include "support/MutexLockerInside.h"
#include "support/RunTogether.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

// Long enough to see a thread wait, and otherwise without meaning.
constexpr int s_ShortMs = 500;

ZebTdxMutex* mutexOf(ZebTdxMutexLocker& locker)
{
    return MutexLockerInside::mutex(locker);
}

bool isLocked(ZebTdxMutexLocker& locker)
{
    return MutexLockerInside::locked(locker);
}

} // namespace

TEST(ZebTdxMutex, LocksAndUnlocks)
{
    ZebTdxMutex mutex(0, QMutex::NonRecursive);
    EXPECT_TRUE(isFree(mutex));
    mutex.lock();
    EXPECT_FALSE(isFree(mutex));
    mutex.unlock();
    EXPECT_TRUE(isFree(mutex));
}

TEST(ZebTdxMutex, ANonRecursiveMutexRefusesItsOwnThread)
{
    ZebTdxMutex mutex(0, QMutex::NonRecursive);
    ASSERT_TRUE(mutex.tryLock());
    EXPECT_FALSE(mutex.tryLock());
    EXPECT_FALSE(mutex.tryLock(1));
    mutex.unlock();
    EXPECT_TRUE(isFree(mutex));
}

TEST(ZebTdxMutex, ARecursiveMutexIsFreeAfterAsManyUnlocksAsLocks)
{
    ZebTdxMutex mutex(9, QMutex::Recursive);
    mutex.lock();
    EXPECT_TRUE(mutex.tryLock());
    EXPECT_TRUE(mutex.tryLock(10));
    for (int held = 3; held > 0; --held) {
        EXPECT_FALSE(isFree(mutex)) << held;
        mutex.unlock();
    }
    EXPECT_TRUE(isFree(mutex));
}

TEST(ZebTdxMutex, TheLevelHasNoEffect)
{
    for (const int level : {-1, 0, 9, 1000}) {
        ZebTdxMutex plain(level, QMutex::NonRecursive);
        plain.lock();
        EXPECT_FALSE(plain.tryLock()) << level;
        plain.unlock();

        ZebTdxMutex recursive(level, QMutex::Recursive);
        recursive.lock();
        EXPECT_TRUE(recursive.tryLock()) << level;
        recursive.unlock();
        recursive.unlock();
    }
}

TEST(ZebTdxMutex, TryLockWaitsAndGivesUpAfterItsTimeout)
{
    ZebTdxMutex mutex(0, QMutex::NonRecursive);
    mutex.lock();
    bool taken = true;
    BlockedThread thread([&] { taken = mutex.tryLock(s_ShortMs); });
    EXPECT_TRUE(thread.waitsFor(mutex));
    EXPECT_TRUE(thread.ends());
    EXPECT_FALSE(taken);
    mutex.unlock();
}

TEST(ZebTdxMutex, TryLockTakesAMutexThatIsUnlockedInTime)
{
    ZebTdxMutex mutex(0, QMutex::NonRecursive);
    mutex.lock();
    bool taken = false;
    BlockedThread thread([&] {
        taken = mutex.tryLock(BlockedThread::s_DeadlineMs);
        if (taken)
            mutex.unlock();
    });
    EXPECT_TRUE(thread.waitsFor(mutex));
    mutex.unlock();
    EXPECT_TRUE(thread.ends());
    EXPECT_TRUE(taken);
}

TEST(ZebTdxMutex, ANegativeTimeoutWaitsForTheMutex)
{
    ZebTdxMutex mutex(0, QMutex::NonRecursive);
    mutex.lock();
    BlockedThread thread([&] {
        EXPECT_TRUE(mutex.tryLock(-1));
        mutex.unlock();
    });
    EXPECT_TRUE(thread.waitsFor(mutex));
    mutex.unlock();
    EXPECT_TRUE(thread.ends());
}

TEST(ZebTdxMutex, LockExcludesOtherThreads)
{
    ZebTdxMutex mutex(0, QMutex::Recursive);
    int guarded = 0;
    runTogether(2, [&](int) {
        for (int i = 0; i < 20000; ++i) {
            const ZebTdxMutexLocker locker(&mutex);
            ++guarded;
        }
    });
    EXPECT_EQ(guarded, 40000);
}

TEST(ZebTdxMutexLocker, HoldsTheMutexForItsScope)
{
    ZebTdxMutex mutex(0, QMutex::NonRecursive);
    {
        ZebTdxMutexLocker locker(&mutex);
        EXPECT_EQ(mutexOf(locker), &mutex);
        EXPECT_TRUE(isLocked(locker));
        EXPECT_FALSE(isFree(mutex));
    }
    EXPECT_TRUE(isFree(mutex));
}

TEST(ZebTdxMutexLocker, ANullMutexIsAccepted)
{
    ZebTdxMutexLocker locker(nullptr);
    EXPECT_EQ(mutexOf(locker), nullptr);
    EXPECT_FALSE(isLocked(locker));
    locker.relock();
    EXPECT_FALSE(isLocked(locker));
}

TEST(ZebTdxMutexLocker, UnlockReleasesTheMutexEarly)
{
    ZebTdxMutex mutex(0, QMutex::Recursive);
    // A second unlock by the destructor would release this thread's own level.
    mutex.lock();
    {
        ZebTdxMutexLocker locker(&mutex);
        locker.unlock();
        EXPECT_FALSE(isLocked(locker));
        EXPECT_EQ(mutexOf(locker), &mutex);
    }
    EXPECT_FALSE(isFree(mutex));
    mutex.unlock();
    EXPECT_TRUE(isFree(mutex));
}

TEST(ZebTdxMutexLocker, UnlockDoesNotTestWhetherItHoldsTheMutex)
{
    ZebTdxMutex mutex(0, QMutex::Recursive);
    mutex.lock();
    ZebTdxMutexLocker locker(&mutex);
    locker.unlock();
    EXPECT_FALSE(isFree(mutex));
    locker.unlock();
    EXPECT_TRUE(isFree(mutex));
    EXPECT_FALSE(isLocked(locker));
}

TEST(ZebTdxMutexLocker, RelockTakesTheMutexAgain)
{
    ZebTdxMutex mutex(0, QMutex::NonRecursive);
    {
        ZebTdxMutexLocker locker(&mutex);
        locker.unlock();
        ASSERT_TRUE(isFree(mutex));
        locker.relock();
        EXPECT_TRUE(isLocked(locker));
        EXPECT_FALSE(isFree(mutex));
    }
    EXPECT_TRUE(isFree(mutex));
}

TEST(ZebTdxMutexLocker, RelockOfAHeldMutexTakesNoSecondLevel)
{
    ZebTdxMutex mutex(0, QMutex::Recursive);
    ZebTdxMutexLocker locker(&mutex);
    locker.relock();
    locker.relock();
    locker.unlock();
    EXPECT_TRUE(isFree(mutex));
}

TEST(ZebTdxMutexLocker, AssignmentCopiesBothFieldsAndMovesNoLock)
{
    ZebTdxMutex mutex(0, QMutex::Recursive);
    ZebTdxMutex other(0, QMutex::Recursive);
    // One more level, since two lockers will unlock the mutex.
    mutex.lock();
    auto source = std::make_unique<ZebTdxMutexLocker>(&mutex);
    auto target = std::make_unique<ZebTdxMutexLocker>(&other);
    const ZebTdxMutexLocker& constSource = *source;
    EXPECT_EQ(&(*target = constSource), target.get());
    EXPECT_EQ(mutexOf(*target), &mutex);
    EXPECT_TRUE(isLocked(*target));
    EXPECT_EQ(mutexOf(*source), &mutex);
    EXPECT_TRUE(isLocked(*source));
    EXPECT_FALSE(isFree(other));

    source.reset();
    EXPECT_FALSE(isFree(mutex));
    target.reset();
    EXPECT_TRUE(isFree(mutex));
    // The mutex that the target held stays locked.
    EXPECT_FALSE(isFree(other));
    other.unlock();
    EXPECT_TRUE(isFree(other));
}

TEST(ZebTdxMutexLocker, AssignmentOfAnUnlockedLockerCopiesThatItIsUnlocked)
{
    ZebTdxMutex mutex(0, QMutex::Recursive);
    ZebTdxMutexLocker source(&mutex);
    source.unlock();
    ZebTdxMutexLocker target(nullptr);
    target = source;
    EXPECT_EQ(mutexOf(target), &mutex);
    EXPECT_FALSE(isLocked(target));
    target.relock();
    EXPECT_FALSE(isFree(mutex));
}
