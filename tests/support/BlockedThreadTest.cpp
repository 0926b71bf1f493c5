#include "support/BlockedThread.h"

#include "support/Wakes.h"
#include "support/ZebTdxMutex.h"

#include <QMutex>
#include <QMutexLocker>
#include <QReadLocker>
#include <QReadWriteLock>
#include <QSemaphore>
#include <QThread>
#include <QWaitCondition>
#include <QWriteLocker>

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <vector>

#include <sys/syscall.h>
#include <unistd.h>

namespace {

// Expects that a thread waits for `lock`, for no other lock of that class, and continues when the
// calling thread unlocks it.
template <typename Lock>
void expectSeenAtLock(Lock& lock, Lock& other)
{
    lock.lock();
    other.lock();
    BlockedThread thread([&] {
        lock.lock();
        lock.unlock();
    });
    EXPECT_TRUE(thread.waitsFor(lock));
    EXPECT_FALSE(thread.watch().isWaitingFor(other));
    EXPECT_FALSE(thread.hasEnded());
    lock.unlock();
    EXPECT_TRUE(thread.ends());
    other.unlock();
}

} // namespace

TEST(WaitPlace, AThreadIsSeenAtAMutexOfEachClass)
{
    QMutex mutexes[2];
    expectSeenAtLock(mutexes[0], mutexes[1]);
    std::mutex standard[2];
    expectSeenAtLock(standard[0], standard[1]);
    ZebTdxMutex plain(0, QMutex::NonRecursive);
    ZebTdxMutex otherPlain(0, QMutex::NonRecursive);
    expectSeenAtLock(plain, otherPlain);
}

TEST(WaitPlace, AThreadIsSeenAtARecursiveMutex)
{
    QMutex mutex(QMutex::Recursive);
    QMutex other(QMutex::Recursive);
    expectSeenAtLock(mutex, other);
    ZebTdxMutex own(0, QMutex::Recursive);
    ZebTdxMutex otherOwn(0, QMutex::Recursive);
    expectSeenAtLock(own, otherOwn);
}

TEST(WaitPlace, ReadersAndWritersAreSeenAtAReadWriteLock)
{
    for (const auto mode : {QReadWriteLock::NonRecursive, QReadWriteLock::Recursive}) {
        QReadWriteLock lock(mode);
        QReadWriteLock other(mode);
        lock.lockForWrite();
        other.lockForWrite();
        BlockedThread reader([&] { QReadLocker{&lock}; });
        EXPECT_TRUE(reader.waitsFor(lock));
        EXPECT_FALSE(reader.watch().isWaitingFor(other));
        BlockedThread writer([&] { QWriteLocker{&lock}; });
        EXPECT_TRUE(writer.waitsFor(lock));
        lock.unlock();
        EXPECT_TRUE(reader.ends());
        EXPECT_TRUE(writer.ends());
        other.unlock();
    }
}

TEST(WaitPlace, AThreadIsSeenAtAConditionUntilItIsWoken)
{
    QMutex mutex;
    QWaitCondition condition;
    QWaitCondition other;
    BlockedThread thread([&] {
        const QMutexLocker locker(&mutex);
        condition.wait(&mutex);
    });
    EXPECT_TRUE(thread.waitsFor(condition));
    other.wakeAll();
    EXPECT_TRUE(thread.watch().isWaitingFor(condition));
    EXPECT_FALSE(thread.watch().isWaitingFor(other));
    condition.wakeAll();
    EXPECT_FALSE(thread.watch().isWaitingFor(condition));
    EXPECT_TRUE(thread.ends());
}

TEST(WaitPlace, AThreadIsSeenAtAStandardConditionAndAtASemaphore)
{
    std::mutex mutex;
    std::condition_variable condition;
    bool isOpen = false;
    QSemaphore semaphore;
    BlockedThread thread([&] {
        {
            std::unique_lock<std::mutex> locker(mutex);
            condition.wait(locker, [&] { return isOpen; });
        }
        semaphore.acquire();
    });
    EXPECT_TRUE(thread.waitsFor(condition));
    {
        const std::lock_guard<std::mutex> locker(mutex);
        isOpen = true;
    }
    condition.notify_all();
    EXPECT_TRUE(thread.waitsFor(semaphore));
    semaphore.release();
    EXPECT_TRUE(thread.ends());
}

TEST(BlockedThread, AThreadInALimitedWaitIsSeenToo)
{
    QMutex mutex;
    mutex.lock();
    BlockedThread thread([&] {
        if (mutex.tryLock(BlockedThread::s_DeadlineMs))
            mutex.unlock();
    });
    EXPECT_TRUE(thread.waitsFor(mutex));
    mutex.unlock();
    EXPECT_TRUE(thread.ends());
}

TEST(BlockedThread, ARunningThreadIsNotReportedAsBlocked)
{
    QMutex mutex;
    mutex.lock();
    std::atomic<bool> end{false};
    BlockedThread thread([&] {
        while (!end.load()) {
        }
    });
    EXPECT_FALSE(thread.standsStill(100));
    EXPECT_FALSE(thread.watch().waitsFor(mutex, 20));
    EXPECT_NONFATAL_FAILURE(EXPECT_FALSE(thread.waitsFor(mutex, 20)),
                            "neither blocked there nor ended");
    end.store(true);
    EXPECT_TRUE(thread.ends());
    mutex.unlock();
}

TEST(BlockedThread, ASleepingThreadIsNotReportedAsBlocked)
{
    QMutex mutex;
    mutex.lock();
    std::atomic<bool> end{false};
    BlockedThread thread([&] {
        while (!end.load())
            QThread::usleep(200);
    });
    EXPECT_FALSE(thread.standsStill(100));
    EXPECT_FALSE(thread.watch().waitsFor(mutex, 20));
    end.store(true);
    EXPECT_TRUE(thread.ends());
    mutex.unlock();
}

TEST(BlockedThread, AThreadAtAnotherLockIsNotReportedAsWaitingForThisOne)
{
    QMutex mutex;
    QMutex other;
    mutex.lock();
    other.lock();
    BlockedThread thread([&] { QMutexLocker{&other}; });
    EXPECT_TRUE(thread.waitsFor(other));
    EXPECT_FALSE(thread.watch().waitsFor(mutex, 20));
    EXPECT_TRUE(thread.standsStill());
    other.unlock();
    EXPECT_TRUE(thread.ends());
    mutex.unlock();
}

TEST(BlockedThread, AnEndedThreadIsNotReportedAsBlocked)
{
    QMutex mutex;
    mutex.lock();
    BlockedThread thread([] {});
    EXPECT_FALSE(thread.waitsFor(mutex));
    EXPECT_TRUE(thread.hasEnded());
    thread.join();
    EXPECT_FALSE(thread.standsStill(20));
    mutex.unlock();
}

TEST(BlockedThread, WaitsForLockReportsWhetherTheCallableTakesTheLock)
{
    QMutex mutex;
    EXPECT_TRUE(waitsForLock(mutex, [&] { QMutexLocker{&mutex}; }));
    EXPECT_FALSE(waitsForLock(mutex, [&] { EXPECT_FALSE(mutex.tryLock()); }));

    QReadWriteLock lock;
    EXPECT_TRUE(waitsForReader(lock, [&] { QWriteLocker{&lock}; }));
    EXPECT_FALSE(waitsForReader(lock, [&] { QReadLocker{&lock}; }));
    EXPECT_TRUE(waitsForWriter(lock, [&] { QReadLocker{&lock}; }));
    EXPECT_FALSE(waitsForWriter(lock, [] {}));
}

TEST(Wakes, DistinguishesActionsThatWakeFromOthers)
{
    QMutex mutex;
    QWaitCondition condition;
    QWaitCondition other;
    EXPECT_TRUE(wakes(mutex, condition, [&] { condition.wakeOne(); }));
    EXPECT_TRUE(wakes(mutex, condition, [&] {
        const QMutexLocker locker(&mutex);
        condition.wakeAll();
    }));
    EXPECT_FALSE(wakes(mutex, condition, [&] { other.wakeAll(); }));
    EXPECT_FALSE(wakes(mutex, condition, [] {}));
}

TEST(ThreadWatch, FindsAThreadByItsName)
{
    class NamedForThisTest : public QThread
    {
    public:
        QSemaphore m_End;

    private:
        void run() override { m_End.acquire(); }
    };
    NamedForThisTest thread;
    thread.setObjectName(QStringLiteral("a name of more than 15"));
    EXPECT_TRUE(ThreadWatch::threadsNamed("a name of more than 15").empty());
    thread.start();
    std::vector<pid_t> found;
    EXPECT_TRUE(waitUntil([&] {
        found = ThreadWatch::threadsNamed("a name of more than 15");
        return !found.empty();
    }));
    ASSERT_EQ(found.size(), 1U);
    EXPECT_TRUE(ThreadWatch(found.front()).waitsFor(thread.m_End));
    thread.m_End.release();
    EXPECT_TRUE(thread.wait(BlockedThread::s_DeadlineMs));
}

TEST(ThreadWatch, SeesTheSystemCallInWhichAThreadSleeps)
{
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    BlockedThread thread([&] {
        char byte = 0;
        EXPECT_EQ(::read(pipe[0], &byte, 1), 1);
    });
    EXPECT_TRUE(waitUntil([&] { return thread.watch().isInCall(SYS_read); }));
    EXPECT_FALSE(thread.watch().isWaiting());
    EXPECT_EQ(::write(pipe[1], "x", 1), 1);
    EXPECT_TRUE(thread.ends());
    ::close(pipe[0]);
    ::close(pipe[1]);
}
