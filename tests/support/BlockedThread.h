#pragma once

#include "support/ThreadWatch.h"
#include "support/WaitPlace.h"
#include "support/WaitUntil.h"

#include <QReadWriteLock>
#include <QSemaphore>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>
#include <utility>

/// Runs a callable on a thread of its own and proves that the thread is blocked, and where.
///
///     mutex.lock();
///     BlockedThread thread([&] { store.add(bytes); });
///     EXPECT_TRUE(thread.waitsFor(mutex));
///     EXPECT_EQ(store.count(), 0);
///     mutex.unlock();
///     EXPECT_TRUE(thread.ends());
///
/// Nothing here asserts that an event does not come within some time. waitsFor() returns true only
/// when the kernel has reported the thread as asleep at that lock, see ThreadWatch.
///
/// The destructor waits for the end of the callable, so what blocks it must be released before.
class BlockedThread
{
public:
    static constexpr int s_DeadlineMs = ThreadWatch::s_DeadlineMs;

    explicit BlockedThread(std::function<void()> work)
        : m_Thread([this, work = std::move(work)] {
              m_Number.store(ThreadWatch::currentThread());
              m_Begun.release();
              work();
              m_Ended.store(true);
          })
    {
        m_Begun.acquire();
    }
    ~BlockedThread() { join(); }
    BlockedThread(const BlockedThread&) = delete;
    BlockedThread& operator=(const BlockedThread&) = delete;

    /// Waits until the thread sleeps at `place`: a QMutex, ZebTdxMutex, QReadWriteLock,
    /// QWaitCondition, QSemaphore, std::mutex or std::condition_variable. Returns false as soon as
    /// the callable has ended, and when the deadline passes.
    bool waitsFor(const WaitPlace& place, int deadlineMs = s_DeadlineMs) const
    {
        bool isWaiting = false;
        const auto isDecided = [&] {
            isWaiting = watch().isWaitingFor(place);
            return isWaiting || hasEnded();
        };
        EXPECT_TRUE(pollUntil(isDecided, deadlineMs)) << "neither blocked there nor ended";
        return isWaiting;
    }

    /// Waits until the thread has slept for 20 ms at one lock, condition or semaphore, whichever it
    /// is. For objects that a test cannot name; waitsFor() proves more.
    bool standsStill(int deadlineMs = s_DeadlineMs) const
    {
        return watch().standsStill(deadlineMs) && !hasEnded();
    }

    /// Whether the callable has returned.
    bool hasEnded() const { return m_Ended.load(); }

    /// Waits until the callable has returned; false when the deadline passes first.
    bool ends(int deadlineMs = s_DeadlineMs) const
    {
        return pollUntil([this] { return hasEnded(); }, deadlineMs);
    }

    /// Waits for the end of the thread.
    void join()
    {
        if (m_Thread.joinable())
            m_Thread.join();
    }

    ThreadWatch watch() const { return ThreadWatch(m_Number.load()); }

private:
    std::atomic<pid_t> m_Number{0};
    std::atomic<bool> m_Ended{false};
    QSemaphore m_Begun;
    std::thread m_Thread;
};

/// Whether `work`, run on another thread while the calling thread holds `lock`, waits for that
/// lock. Either answer is proven: the other thread has been seen asleep at the lock, or `work` has
/// returned while the lock was held. It has ended on return.
template <typename Lock>
bool waitsForLock(Lock& lock, const std::function<void()>& work)
{
    lock.lock();
    BlockedThread thread(work);
    const bool waited = thread.waitsFor(lock);
    lock.unlock();
    return waited;
}

/// waitsForLock(), the calling thread holding `lock` for reading.
inline bool waitsForReader(QReadWriteLock& lock, const std::function<void()>& work)
{
    lock.lockForRead();
    BlockedThread thread(work);
    const bool waited = thread.waitsFor(lock);
    lock.unlock();
    return waited;
}

/// waitsForLock(), the calling thread holding `lock` for writing.
inline bool waitsForWriter(QReadWriteLock& lock, const std::function<void()>& work)
{
    lock.lockForWrite();
    BlockedThread thread(work);
    const bool waited = thread.waitsFor(lock);
    lock.unlock();
    return waited;
}
