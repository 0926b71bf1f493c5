#pragma once

#include "support/ZebTdxExport.h"
#include "support/ZebThreadSafety.h"

/// Holds the block manager's delete lock for the length of a scope. Meanwhile no other thread
/// admits or evicts a block, nor opens, copies or closes an accessor. Keep the scope short: readers
/// wait for it.
///
/// Locks: level 1 of the lock order, the outermost lock, which is recursive. The holder must not
/// wait for a hashing job or for a disk thread, so it must not call an operation that does:
/// everything of ZebDataReference that waits, and flushing.
class ZEBTDX_EXPORT ZEBTDX_SCOPED_CAPABILITY ZebDataDeleteLocker
{
public:
    /// Takes the delete lock of the one manager, waiting without limit.
    ZebDataDeleteLocker() ZEBTDX_ACQUIRE(ZebDeleteLock);
    ZebDataDeleteLocker(const ZebDataDeleteLocker&) = delete;

    /// Releases one level of the delete lock.
    ~ZebDataDeleteLocker() ZEBTDX_RELEASE();

    /// Does nothing: a lock cannot pass from one locker to another.
    ZebDataDeleteLocker& operator=(const ZebDataDeleteLocker&);
};
