#pragma once

// Internal: a scoped lock that the thread-safety analysis knows. Not installed.

#include "support/ZebThreadSafety.h"

#include <QMutex>
#include <QMutexLocker>

/// Holds a QMutex for the length of a scope. It is Qt's locker, with attributes for the
/// analysis; the code is the same.
///
/// Thread safety: a locker belongs to the thread that made it.
class ZEBTDX_SCOPED_CAPABILITY ZebMutexLocker final : public QMutexLocker
{
public:
    explicit ZebMutexLocker(QMutex* lock) ZEBTDX_ACQUIRE(lock) : QMutexLocker(lock) {}
    ~ZebMutexLocker() ZEBTDX_RELEASE() = default;

    /// Releases the lock before the end of the scope.
    void unlock() ZEBTDX_RELEASE() { QMutexLocker::unlock(); }

    /// Takes the lock again.
    void relock() ZEBTDX_ACQUIRE() { QMutexLocker::relock(); }

private:
    Q_DISABLE_COPY(ZebMutexLocker)
};
