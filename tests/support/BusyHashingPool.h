#pragma once

#include "data/ZebThreadPoolManager.h"

#include <QSemaphore>
#include <QThreadPool>

#include <gtest/gtest.h>

#include <atomic>

/// Reduces the hashing pool to one thread and occupies it until release() or the end of the scope.
/// A test that waits for the pool meanwhile continues after 20 s, and fails.
class BusyHashingPool
{
public:
    BusyHashingPool() : m_ThreadCount(pool().maxThreadCount())
    {
        pool().waitForDone();
        pool().setMaxThreadCount(1);
        pool().start([this] {
            m_Occupied.release();
            if (!m_Gate.tryAcquire(1, 20000))
                m_TimedOut.store(true);
        });
        m_Occupied.acquire();
    }
    ~BusyHashingPool()
    {
        release();
        pool().setMaxThreadCount(m_ThreadCount);
        EXPECT_FALSE(m_TimedOut.load()) << "a thread has waited for the pool";
    }
    BusyHashingPool(const BusyHashingPool&) = delete;
    BusyHashingPool& operator=(const BusyHashingPool&) = delete;

    static QThreadPool& pool()
    {
        return *ZebThreadPoolManager::instance().threadPool(
            ZebThreadPoolManager::HashingThreadPool);
    }

    /// Frees the pool's thread.
    void open()
    {
        if (!m_Released)
            m_Gate.release();
        m_Released = true;
    }

    /// Frees the pool's thread and waits until the pool is idle.
    void release()
    {
        open();
        pool().waitForDone();
    }

private:
    const int m_ThreadCount;
    QSemaphore m_Occupied;
    QSemaphore m_Gate;
    std::atomic<bool> m_TimedOut{false};
    bool m_Released = false;
};
