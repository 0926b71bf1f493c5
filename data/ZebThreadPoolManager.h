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
        /// A pool that the library leaves to its host.
        PrivateThreadPool = 1,
        /// Where blocks are hashed.
        HashingThreadPool = 2
    };

    /// Waits for the tasks of both own pools.
    ~ZebThreadPoolManager();

    /// The one object of the process, built at first use.
    static ZebThreadPoolManager& instance();

    /// The pool of that type, never null while the application runs; Qt's global pool for any other
    /// value. The pool stays owned where it is.
    QThreadPool* threadPool(ZebThreadPoolType type);

private:
    Q_DISABLE_COPY(ZebThreadPoolManager)

    ZebThreadPoolManager();

    QThreadPool m_PrivatePool;
    QThreadPool m_HashingPool;
};
