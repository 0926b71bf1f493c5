#pragma once

#include "support/ZebTdxExport.h"
#include "support/ZebThreadSafety.h"

#include <QMutex>

#include <atomic>

/// A mutex whose constructor takes a level of the lock order. The delete lock, the mutex of each
/// hash and those of the registry's shards are of this class.
///
/// A recursive one remembers its owner and counts, so that taking it again costs no atomic
/// read-modify-write, and constructing it allocates nothing.
///
/// Thread safety: that of QMutex. Not copyable.
class ZEBTDX_CAPABILITY("mutex") ZEBTDX_EXPORT ZebTdxMutex
{
public:
    /// Constructs an unlocked mutex.
    ///
    /// @param level
    /// Kept on purpose: ignored. The delete lock passes 0 and the mutex of a hash 9, which are not
    /// the levels of docs/LOCKING.md; those stand at the fields.
    /// @param mode whether the thread that holds the mutex may take it again
    ZebTdxMutex(int level, QMutex::RecursionMode mode);
    ~ZebTdxMutex();

    /// Takes the mutex, waiting without limit.
    void lock() ZEBTDX_ACQUIRE();

    /// Releases the mutex. The calling thread must hold it.
    void unlock() ZEBTDX_RELEASE();

    /// Takes the mutex if that needs no wait. Returns whether it did.
    bool tryLock() ZEBTDX_TRY_ACQUIRE(true);

    /// Takes the mutex, waiting at most `timeout` milliseconds; a negative value waits without
    /// limit. Returns whether it did.
    bool tryLock(int timeout) ZEBTDX_TRY_ACQUIRE(true);

private:
    Q_DISABLE_COPY(ZebTdxMutex)

    bool isMine() const;
    void setOwner();

    // Never recursive itself: that form of QMutex allocates.
    QMutex m_Mutex;

    // The address of a thread-local object of the owner, null when the mutex is free or not
    // recursive. Written by the owner. Another thread may read it at any time and then finds
    // something else than its own address, so the value needs no order.
    std::atomic<const void*> m_Owner{nullptr};

    // How often the owner has taken the mutex again. Only the owner accesses it.
    int m_ExtraLocks = 0;

    const bool m_IsRecursive;
};

/// Holds a ZebTdxMutex for the length of a scope; may release it early and take it again.
///
/// Thread safety: a locker belongs to the thread that made it.
class ZEBTDX_SCOPED_CAPABILITY ZEBTDX_EXPORT ZebTdxMutexLocker
{
public:
    /// Takes `mutex`, waiting without limit. A locker of a null mutex does nothing. The mutex is
    /// not owned and must outlive the locker.
    ZebTdxMutexLocker(ZebTdxMutex* mutex) ZEBTDX_ACQUIRE(mutex);

    /// Copies both fields and takes no lock.
    /// Kept on purpose: original and copy then both act as holders of one mutex, and each unlocks
    /// it. The thread-safety analysis does not follow copies.
    ZebTdxMutexLocker(const ZebTdxMutexLocker& other) = default;

    /// Releases the mutex if this locker still holds it.
    ~ZebTdxMutexLocker() ZEBTDX_RELEASE();

    /// Kept on purpose: copies both fields and moves no lock, as the copy constructor does.
    ZebTdxMutexLocker& operator=(const ZebTdxMutexLocker& other);

    /// Releases the mutex. Must not be called twice in a row, or on a locker of a null mutex; this
    /// is not checked.
    void unlock() ZEBTDX_RELEASE();

    /// Takes the mutex again. Does nothing if there is none or it is held already.
    void relock() ZEBTDX_ACQUIRE();

private:
    ZebTdxMutex* m_Mutex;
    bool m_Locked;
};
