#include "support/ZebTdxMutex.h"

#include "support/PrivateAccess.h"

#include <QElapsedTimer>
#include <QSemaphore>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

ZEBTDX_ACCESS(LockerMutexTag, ZebTdxMutexLocker, ZebTdxMutex* ZebTdxMutexLocker::*, m_Mutex)
ZEBTDX_ACCESS(LockerLockedTag, ZebTdxMutexLocker, bool ZebTdxMutexLocker::*, m_Locked)

namespace {

constexpr int s_DeadlineMs = 20000;

// Whether another thread finds the mutex free at this moment.
bool isFree(ZebTdxMutex& mutex)
{
    bool taken = false;
    std::thread([&] {
        taken = mutex.tryLock();
        if (taken)
            mutex.unlock();
    }).join();
    return taken;
}

ZebTdxMutex* mutexOf(const ZebTdxMutexLocker& locker)
{
    return locker.*privateMember(LockerMutexTag());
}

bool isLocked(const ZebTdxMutexLocker& locker)
{
    return locker.*privateMember(LockerLockedTag());
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

TEST(ZebTdxMutex, TryLockGivesUpAfterItsTimeout)
{
    ZebTdxMutex mutex(0, QMutex::NonRecursive);
    mutex.lock();
    QElapsedTimer timer;
    timer.start();
    EXPECT_FALSE(mutex.tryLock(50));
    // The clock of the wait may be a little coarser than this one.
    EXPECT_GE(timer.elapsed(), 45);
    mutex.unlock();
}

TEST(ZebTdxMutex, TryLockTakesTheMutexThatComesFreeInTime)
{
    ZebTdxMutex mutex(0, QMutex::NonRecursive);
    mutex.lock();
    QSemaphore waiting;
    std::atomic<bool> taken{false};
    std::thread thread([&] {
        waiting.release();
        taken.store(mutex.tryLock(s_DeadlineMs));
        if (taken.load())
            mutex.unlock();
    });
    waiting.acquire();
    mutex.unlock();
    thread.join();
    EXPECT_TRUE(taken.load());
}

TEST(ZebTdxMutex, ANegativeTimeoutWaitsForTheMutex)
{
    ZebTdxMutex mutex(0, QMutex::NonRecursive);
    mutex.lock();
    QSemaphore waiting;
    QSemaphore taken;
    std::thread thread([&] {
        waiting.release();
        EXPECT_TRUE(mutex.tryLock(-1));
        taken.release();
        mutex.unlock();
    });
    waiting.acquire();
    EXPECT_FALSE(taken.tryAcquire(1, 50));
    mutex.unlock();
    EXPECT_TRUE(taken.tryAcquire(1, s_DeadlineMs));
    thread.join();
}

TEST(ZebTdxMutex, LockWaitsForItsHolder)
{
    ZebTdxMutex mutex(0, QMutex::Recursive);
    int guarded = 0;
    const auto count = [&] {
        for (int i = 0; i < 20000; ++i) {
            const ZebTdxMutexLocker locker(&mutex);
            ++guarded;
        }
    };
    std::thread one(count);
    std::thread other(count);
    one.join();
    other.join();
    EXPECT_EQ(guarded, 40000);
}

TEST(ZebTdxMutexLocker, HoldsTheMutexForItsScope)
{
    ZebTdxMutex mutex(0, QMutex::NonRecursive);
    {
        const ZebTdxMutexLocker locker(&mutex);
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

TEST(ZebTdxMutexLocker, UnlockLetsTheMutexGoEarly)
{
    ZebTdxMutex mutex(0, QMutex::Recursive);
    // Were the destructor to unlock again, it would take this thread's own level away.
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
    // One level for each of the two lockers that will unlock it.
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
    // Nobody remembers the mutex that the target held.
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
