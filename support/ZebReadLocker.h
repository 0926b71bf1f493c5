#pragma once

// Internal: a scoped lock that the thread-safety analysis knows. Not installed.

#include "support/ZebThreadSafety.h"

#include <QReadLocker>
#include <QReadWriteLock>

/// Holds a QReadWriteLock for reading for the length of a scope. It is Qt's locker, with attributes
/// for the analysis; the code is the same.
///
/// Thread safety: a locker belongs to the thread that made it.
class ZEBTDX_SCOPED_CAPABILITY ZebReadLocker final : public QReadLocker
{
public:
    explicit ZebReadLocker(QReadWriteLock* lock) ZEBTDX_ACQUIRE_SHARED(lock) : QReadLocker(lock) {}
    ~ZebReadLocker() ZEBTDX_RELEASE() = default;

    /// Releases the lock before the end of the scope.
    void unlock() ZEBTDX_RELEASE() { QReadLocker::unlock(); }

private:
    Q_DISABLE_COPY(ZebReadLocker)
};
