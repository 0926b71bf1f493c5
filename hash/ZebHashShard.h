#pragma once

// Internal: a part of the registry. Not installed.

#include "hash/ZebDigestView.h"
#include "hash/ZebHashTable.h"
#include "support/ZebTdxMutex.h"
#include "support/ZebThreadSafety.h"

#include <QtGlobal>

#include <atomic>

/// A part of the registry: the hashes whose digests belong to it, their counters and the mutex of
/// both. All that concerns one digest takes this mutex alone, so threads that work with different
/// digests rarely meet; each shard has a cache line of its own for that.
///
/// Thread safety: m_Mutex guards everything.
struct alignas(64) ZebHashShard
{
    // Recursive, so that a thread may drop a holder while it walks the tables.
    ZebTdxMutex m_Mutex ZEBTDX_LOCK_LEVEL_2{2, QMutex::Recursive};

    ZebHashTable m_Hashes ZEBTDX_GUARDED_BY(m_Mutex);

    // Unsigned: after the largest value they continue from 0. They are printed as int, so the sums
    // of all shards continue from the smallest int as a single counter would.
    quint32 m_Requests ZEBTDX_GUARDED_BY(m_Mutex) = 0;
    quint32 m_CacheHits ZEBTDX_GUARDED_BY(m_Mutex) = 0;
    quint32 m_CacheMisses ZEBTDX_GUARDED_BY(m_Mutex) = 0;
    quint32 m_Removes ZEBTDX_GUARDED_BY(m_Mutex) = 0;

    // How many removals of files are in progress whose digests belong to this shard, so that
    // interning rarely takes a second mutex. Grows with m_Mutex and the mutex of the removals held
    // and shrinks with the latter held: with m_Mutex held, 0 proves that there is none.
    std::atomic<quint32> m_RemovalCount{0};
};
