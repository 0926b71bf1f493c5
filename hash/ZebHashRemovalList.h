#pragma once

// Internal: the removals of orphaned files that are in progress. Not installed.

#include "hash/ZebDigestView.h"
#include "hash/ZebHashShard.h"
#include "support/ZebThreadSafety.h"

#include <QMutex>
#include <QWaitCondition>

class ZebHashRemoval;

/// The digests whose files are being removed. None of them is registered: a removal begins with the
/// shard of its digest locked, and every insertion looks for removals first.
///
/// Thread safety: any thread may call any function.
///
/// Locks: m_Mutex is a leaf lock, taken inside the mutex of a shard.
class ZebHashRemovalList
{
public:
    /// Adds a removal whose digest belongs to `shard` and is not registered. Cannot fail.
    void begin(ZebHashRemoval* removal, ZebHashShard& shard) ZEBTDX_REQUIRES(shard.m_Mutex);

    /// Takes the removal out and wakes the threads that wait for it. Takes no mutex but its own.
    void end(ZebHashRemoval* removal);

    /// Waits until this digest, which belongs to `shard`, is not being removed, with the shard
    /// released by one level meanwhile. On return no removal of it can begin before the shard is
    /// unlocked.
    void await(ZebHashShard& shard, const ZebDigestView& digest) ZEBTDX_REQUIRES(shard.m_Mutex)
    {
        // Acquire: what the thread that removed the file did before comes before what follows.
        if (shard.m_RemovalCount.load(std::memory_order_acquire) != 0)
            awaitEnd(shard, digest);
    }

private:
    /// The body of await() where the shard has removals.
    void awaitEnd(ZebHashShard& shard, const ZebDigestView& digest) ZEBTDX_REQUIRES(shard.m_Mutex);

    bool contains(const ZebDigestView& digest) const ZEBTDX_REQUIRES(m_Mutex);

    // Qt's condition cannot release a recursive mutex, such as that of a shard.
    QMutex m_Mutex ZEBTDX_LOCK_LEVEL_2_INNER;
    QWaitCondition m_Ended;

    // Linked by their m_Next.
    ZebHashRemoval* m_First ZEBTDX_GUARDED_BY(m_Mutex) = nullptr;
};
