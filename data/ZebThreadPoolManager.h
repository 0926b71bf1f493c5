#pragma once

#include "support/ZebTdxExport.h"

#include <QThreadPool>

/// The owner of the library's thread pools, each of Qt's default size.
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

    /// Waits for the tasks of its own two pools.
    ~ZebThreadPoolManager();

    /// The object of the process, constructed at first use.
    static ZebThreadPoolManager& instance();

    /// The pool of the given type, never null while the application runs; Qt's global pool for any
    /// other value. The caller does not own it.
    QThreadPool* threadPool(ZebThreadPoolType type);

private:
    Q_DISABLE_COPY(ZebThreadPoolManager)

    ZebThreadPoolManager();

    QThreadPool m_PrivatePool;
    QThreadPool m_HashingPool;
};
