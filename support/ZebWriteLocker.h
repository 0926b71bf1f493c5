#pragma once

// Internal: a scoped lock that the thread-safety analysis knows. Not installed.

#include "support/ZebThreadSafety.h"

#include <QReadWriteLock>
#include <QWriteLocker>

/// Holds a QReadWriteLock for writing for the length of a scope. It is Qt's locker, with attributes
/// for the analysis; the code is the same.
///
/// Thread safety: a locker belongs to the thread that made it.
class ZEBTDX_SCOPED_CAPABILITY ZebWriteLocker final : public QWriteLocker
{
public:
    explicit ZebWriteLocker(QReadWriteLock* lock) ZEBTDX_ACQUIRE(lock) : QWriteLocker(lock) {}
    ~ZebWriteLocker() ZEBTDX_RELEASE() = default;

    /// Releases the lock before the end of the scope.
    void unlock() ZEBTDX_RELEASE() { QWriteLocker::unlock(); }

    /// Takes the lock again.
    void relock() ZEBTDX_ACQUIRE() { QWriteLocker::relock(); }

private:
    Q_DISABLE_COPY(ZebWriteLocker)
};
