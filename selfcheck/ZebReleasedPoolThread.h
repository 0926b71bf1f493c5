#pragma once

// Internal: waits inside tasks of Qt's global pool. Not installed.

#include <QThreadPool>

/// Gives up the pool thread of the current task for a scope in which the task waits for other tasks
/// of the pool, so that the wait ends in a pool of any size. On a thread outside the pool, this
/// only allows the pool one more thread for a while.
///
/// Thread safety: belongs to one thread.
class ZebReleasedPoolThread
{
public:
    ZebReleasedPoolThread() : m_Pool(QThreadPool::globalInstance()) { m_Pool->releaseThread(); }
    ~ZebReleasedPoolThread() { m_Pool->reserveThread(); }
    ZebReleasedPoolThread(const ZebReleasedPoolThread&) = delete;
    ZebReleasedPoolThread& operator=(const ZebReleasedPoolThread&) = delete;

private:
    QThreadPool* m_Pool;
};
