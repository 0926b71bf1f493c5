#pragma once

#include "data/ZebDataReference.h"
#include "support/ZebTdxExport.h"
#include "support/ZebThreadSafety.h"

#include <QMap>
#include <QReadWriteLock>
#include <QString>

#include <atomic>

/// A map from keys to references, in which a host finds results that it has computed before. The
/// host defines the keys.
///
/// An entry keeps the identity of its block alive, but not the block in memory, which may be on
/// disk only. The number of entries is not limited, and none is removed before the object is
/// destroyed.
///
/// Ownership: a host creates as many objects as it needs.
///
/// Thread safety: any thread may call every operation.
///
/// Locks: m_Lock is not part of the lock order, since only the mutex of a hash is taken inside it.
/// addResult() may drop a reference, which takes outer locks, after releasing m_Lock.
class ZEBTDX_EXPORT ZebResultCache
{
public:
    /// Empty and enabled.
    ZebResultCache();

    /// Drops all references. Waits for the jobs of pending ones that have no other holder.
    ~ZebResultCache();

    /// Stores a copy of `ref`, pending or resolved, under `key`. Does not wait for a job. The first
    /// result of a key stays; later ones are ignored. Returns false, and stores nothing, only if
    /// the cache is disabled.
    ///
    /// Kept on purpose: if two threads store a result under a new key at once, the second may
    /// replace the first, and both get true.
    bool addResult(const QString& key, ZebDataReference& ref);

    /// Whether there is a result for `key`; false if the cache is disabled. Not counted as a hit.
    bool contains(const QString& key) const;

    /// The result for `key`, counted as a hit; a null reference if there is none or the cache is
    /// disabled. A pending result stays pending in the cache when the returned copy is resolved.
    ZebDataReference lookup(const QString& key) const;

    /// How many results are stored, also while the cache is disabled.
    int resultCount() const;

    /// How many calls of lookup() have found a result.
    int cacheHits() const;

    /// A disabled cache acts as if it were empty, but keeps its results.
    void setEnabled(bool enabled);

private:
    Q_DISABLE_COPY(ZebResultCache)

    // Read and written without the lock: a statistic and a switch.
    mutable std::atomic<int> m_CacheHits;
    std::atomic<bool> m_Enabled;

    // Not recursive: Qt's recursive form stays locked if there is no memory to count a reader. Only
    // the mutex of a hash is taken inside it, to add a holder; no reference is dropped inside it.
    mutable QReadWriteLock m_Lock;

    QMap<QString, ZebDataReference> m_Results ZEBTDX_GUARDED_BY(m_Lock);
};
