#pragma once

#include "support/ZebTdxExport.h"

#include <QMutex>

/// One QMutex behind the interface that all of the store's own locks share.
///
/// Thread safety: that of QMutex. Copying is not possible.
class ZEBTDX_EXPORT ZebTdxMutex
{
public:
    /// Builds the mutex with the given recursion mode. `level` names the place of the mutex in the
    /// lock order for the reader of the code; it is accepted and dropped (the delete lock passes 0,
    /// the mutex of a hash 9).
    ZebTdxMutex(int level, QMutex::RecursionMode mode);
    ~ZebTdxMutex();

    /// Waits for the mutex without limit and takes it.
    void lock();

    /// Gives the mutex back. The calling thread must hold it.
    void unlock();

    /// Takes the mutex if that needs no wait. Returns whether it was taken.
    bool tryLock();

    /// Takes the mutex, waiting at most `timeout` milliseconds; a negative value waits without
    /// limit. Returns whether it was taken.
    bool tryLock(int timeout);

private:
    Q_DISABLE_COPY(ZebTdxMutex)

    QMutex m_Mutex;
};

/// Holds a ZebTdxMutex for the length of a scope, with the freedom to let it go early and to take
/// it again.
///
/// Thread safety: a locker belongs to the thread that made it.
class ZEBTDX_EXPORT ZebTdxMutexLocker
{
public:
    /// Takes `mutex`, waiting without limit. A null mutex is accepted: the locker then does
    /// nothing. The mutex is not owned and must outlive the locker.
    ZebTdxMutexLocker(ZebTdxMutex* mutex);
    ZebTdxMutexLocker(const ZebTdxMutexLocker& other) = default;

    /// Gives the mutex back when this locker still holds it.
    ~ZebTdxMutexLocker();

    /// Copies both fields and moves no lock.
    /// Kept on purpose: two lockers then believe that they hold one mutex, and each unlocks it.
    ZebTdxMutexLocker& operator=(const ZebTdxMutexLocker& other);

    /// Gives the mutex back. Nothing is tested: a second call in a row, or a call on a locker of a
    /// null mutex, is an error of the caller.
    void unlock();

    /// Takes the mutex again. Does nothing when there is none or when it is held already.
    void relock();

private:
    ZebTdxMutex* m_Mutex;
    bool m_Locked;
};
