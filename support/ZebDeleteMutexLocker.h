#pragma once

// Internal: the delete lock as the library itself takes it. Not installed.

#include "support/ZebThreadSafety.h"

/// Holds the mutex of the delete lock for the length of a scope. Meanwhile no other thread evicts a
/// block or changes the tables of blocks. Unlike with a ZebDataDeleteLocker, other threads still
/// open and close the accessors of resident blocks.
///
/// Locks: level 1 of the lock order, recursive, as with ZebDataDeleteLocker.
class ZEBTDX_SCOPED_CAPABILITY ZebDeleteMutexLocker
{
public:
    ZebDeleteMutexLocker() ZEBTDX_ACQUIRE(ZebDeleteLock);
    ~ZebDeleteMutexLocker() ZEBTDX_RELEASE();
    ZebDeleteMutexLocker(const ZebDeleteMutexLocker&) = delete;
    ZebDeleteMutexLocker& operator=(const ZebDeleteMutexLocker&) = delete;
};
