#pragma once

#include "support/ZebTdxExport.h"

#include <QString>

/// Keeps other processes away from a cache root, on Linux: an advisory lock (`flock`) on the root
/// directory itself. Processes in other containers that see the same directory see the lock, too.
/// It creates no file, and works in a directory without write permission. On network and FUSE file
/// systems it may exclude processes of the same machine only, and nothing reports that.
///
/// The store takes no such lock. A host takes one for each of its roots before it sets the store
/// up, and releases it after cleanUp(): Exclusive where it adds blocks or collects, Shared where it
/// only reads. `zebtdx` does the same, and so neither works on a root that the other one changes.
///
/// The system releases the lock when the process ends, however it ends. A child process made by
/// `fork` without `exec` shares it, and so keeps it. Two objects exclude each other also within one
/// process.
///
/// Thread safety: an object belongs to one thread at a time.
class ZEBTDX_EXPORT ZebCacheRootLock
{
public:
    enum Kind
    {
        /// Held together with other shared locks.
        Shared,
        /// Held alone.
        Exclusive
    };

    enum Result
    {
        Locked,
        /// Another process, or another object, holds a lock that excludes this one.
        InUse,
        /// The root cannot be opened, or its file system has no such locks; errorText() has the
        /// reason. Two processes could use the root at the same time, so do not use it.
        Failed
    };

    ZebCacheRootLock();

    /// Releases the lock.
    ~ZebCacheRootLock();

    ZebCacheRootLock(const ZebCacheRootLock&) = delete;
    ZebCacheRootLock& operator=(const ZebCacheRootLock&) = delete;

    /// Takes the other object's lock, which holds none afterwards.
    ZebCacheRootLock(ZebCacheRootLock&& other) noexcept;

    /// Locks the directory `root`, which must exist, and does not wait. Releases the lock that this
    /// object held before. A link at `root` is followed.
    Result tryLock(const QString& root, Kind kind);

    /// Releases the lock, if any.
    void unlock();

    bool isLocked() const;

    /// Why the last tryLock() returned Failed; empty after any other result.
    QString errorText() const;

private:
    int m_Descriptor;
    QString m_ErrorText;
};
