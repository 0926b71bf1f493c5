#pragma once

#include "data/ZebDataReference.h"
#include "support/ZebTdxExport.h"

#include <QMap>
#include <QReadWriteLock>
#include <QString>

#include <atomic>

/// A map from keys that a host makes up to the references of its results, so that a result which
/// was computed once is found again. What a key means is the host's affair.
///
/// An entry pins the identity of its block and not its memory: the block may be on disk only.
/// There is no limit, and no entry leaves before the object ends.
///
/// Ownership: a plain object of the host's, as many as it likes.
///
/// Thread safety: any thread may call every operation.
///
/// Locks: m_Lock, beside the lock order; none of the library's outer locks is needed or taken, but
/// for the reference that addResult() may drop at its end, with m_Lock free.
class ZEBTDX_EXPORT ZebResultCache
{
public:
    /// Empty and enabled.
    ZebResultCache();

    /// Releases all references, which waits for the jobs of those that are pending and held by
    /// nobody else.
    ~ZebResultCache();

    /// Stores a copy of `ref` under `key`, pending or resolved as it is; never waits for a job. The
    /// first result under a key stays, and a later one is ignored. Returns false only when the
    /// cache is disabled; nothing is stored then.
    ///
    /// Kept on purpose: of two threads that store under a new key at once, the later one may
    /// replace the result of the earlier one, and both are told true.
    bool addResult(const QString& key, ZebDataReference& ref);

    /// Whether there is a result under `key`; false when the cache is disabled. Counts nothing.
    bool contains(const QString& key) const;

    /// The result under `key`, and one hit more; a null reference and no hit when there is none or
    /// the cache is disabled. A pending result stays pending here when the copy is resolved.
    ZebDataReference lookup(const QString& key) const;

    /// How many results are stored, also while the cache is disabled.
    int resultCount() const;

    /// How many look-ups have found a result.
    int cacheHits() const;

    /// While disabled the cache behaves as empty, and its results are kept.
    void setEnabled(bool enabled);

private:
    Q_DISABLE_COPY(ZebResultCache)

    // Both are read and written with no lock: one is a statistic, the other a plain switch.
    mutable std::atomic<int> m_CacheHits;
    std::atomic<bool> m_Enabled;

    // Guards m_Results. Recursive. Only the mutex of a hash is taken inside it, to count a holder;
    // nothing is released inside it.
    mutable QReadWriteLock m_Lock;

    QMap<QString, ZebDataReference> m_Results;
};
