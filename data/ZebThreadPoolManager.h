#pragma once

#include "support/ZebTdxExport.h"

#include <QThreadPool>

#include <atomic>

/// The owner of the library's thread pools, each of Qt's default size.
///
/// Process exit: the object and its pools are not destroyed, so a task that runs late still finds
/// them. Where the object would be destroyed, and before the store ends, the exit waits for the
/// tasks of Qt's global pool and of both own pools. A thread of a pool that calls exit() waits for
/// all hashing jobs but its own; of the other tasks it may not wait for one that runs in each pool,
/// nor for those that wait for that one's thread.
///
/// Thread safety: any thread may ask for a pool.
class ZEBTDX_EXPORT ZebThreadPoolManager
{
public:
    enum ZebThreadPoolType : int
    {
        /// Qt's global pool.
        GlobalThreadPool = 0,
        /// A pool for the host; the library does not use it.
        PrivateThreadPool = 1,
        /// The pool of the hashing jobs.
        HashingThreadPool = 2
    };

    /// Waits for the tasks of its own two pools. The object of the process is not destroyed, see
    /// above.
    ~ZebThreadPoolManager();

    /// The object of the process, constructed at first use.
    static ZebThreadPoolManager& instance();

    /// The pool of the given type, never null while the application runs; Qt's global pool for any
    /// other value. The caller does not own it.
    QThreadPool* threadPool(ZebThreadPoolType type);

private:
    Q_DISABLE_COPY(ZebThreadPoolManager)

    friend class ZebDataBlockManager;

    // How many forks precede a process in which no pool has been asked for.
    static constexpr int s_Unused = -1;

    ZebThreadPoolManager();

    /// Waits for the tasks of Qt's global pool and of the own pools. Does not wait for threads that
    /// a parent process has left behind at a fork.
    void waitForTasks();

    // The process that has constructed this object.
    const int m_MadeIn;

    // The process that has last asked for a pool, by ZebForkWatch::generation(). Relaxed: only the
    // exit of the process reads it.
    std::atomic<int> m_UsedIn{s_Unused};

    QThreadPool m_PrivatePool;
    QThreadPool m_HashingPool;
};
