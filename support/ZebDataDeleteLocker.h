#pragma once

#include "support/ZebTdxExport.h"

/// Holds the block manager's delete lock for the length of a scope: while one exists, no block is
/// deleted.
///
/// Locks: takes level 1 of the lock order, the outermost lock, which is recursive. Nobody may hold
/// it while waiting for a writer.
class ZEBTDX_EXPORT ZebDataDeleteLocker
{
public:
    /// Takes the delete lock of the one manager, waiting without limit.
    ZebDataDeleteLocker();
    ZebDataDeleteLocker(const ZebDataDeleteLocker&) = delete;

    /// Gives one level of the delete lock back.
    ~ZebDataDeleteLocker();

    /// Does nothing: there is no field, and a lock that is held cannot change hands.
    ZebDataDeleteLocker& operator=(const ZebDataDeleteLocker&);
};
