#pragma once

#include "support/ZebTdxExport.h"
#include "support/ZebThreadSafety.h"

#include <QAtomicInt>
#include <QReadWriteLock>

#include <atomic>
#include <optional>
#include <unordered_map>

class ZebDataHash;

/// One entry of the list. Holds no reference to its hash: an ending hash has been removed before.
struct ZEBTDX_EXPORT ZebDataBlockLruNode
{
    explicit ZebDataBlockLruNode(ZebDataHash* hash);
    ~ZebDataBlockLruNode();
    ZebDataBlockLruNode(const ZebDataBlockLruNode&) = delete;
    ZebDataBlockLruNode& operator=(const ZebDataBlockLruNode&) = delete;

    ZebDataHash* m_Hash;
    /// The next entry toward the oldest; null for the oldest.
    ZebDataBlockLruNode* m_Older = nullptr;
    /// The next entry toward the newest; null for the newest.
    ZebDataBlockLruNode* m_Newer = nullptr;
};

/// The resident blocks that may be evicted, from the most to the least recently used.
///
/// A pinned block keeps its place in the table, so that listing it again at the end of its last
/// accessor allocates nothing.
///
/// Invariant: the nodes in m_Items are those of the list. The list runs from m_Newest along m_Older
/// to m_Oldest, and back along m_Newer. Every operation but clear() takes constant time. Only
/// add() of a hash without a place allocates; when that throws, nothing has changed.
///
/// Locks: m_Lock is level 5, the innermost: no other lock is taken and no other code called inside
/// it. contains(), add() and touch() take it; count() takes no lock. The other operations require
/// the caller to hold it, since eviction looks and removes under one hold. All changes also happen
/// under the delete lock, so only readers without that lock need the read lock.
class ZEBTDX_EXPORT ZebDataBlockLru
{
public:
    ZebDataBlockLru();
    ~ZebDataBlockLru();

    /// Whether the hash is listed. Takes the read lock.
    bool contains(ZebDataHash* hash) const;

    /// How many hashes are listed. Takes no lock.
    int count() const;

    /// Adds the hash as the newest, unless it is listed. Takes the write lock.
    void add(ZebDataHash* hash) ZEBTDX_REQUIRES(ZebDeleteLock);

    /// Makes a listed hash the newest; ignores any other. Takes the write lock.
    void touch(ZebDataHash* hash) ZEBTDX_REQUIRES(ZebDeleteLock);

    /// Removes a listed hash and keeps its place for add(); ignores any other. The caller holds the
    /// write lock.
    void park(ZebDataHash* hash) ZEBTDX_REQUIRES(ZebDeleteLock, m_Lock);

    /// Removes a hash and its place; ignores one that has none. The caller holds the write lock.
    void remove(ZebDataHash* hash) ZEBTDX_REQUIRES(ZebDeleteLock, m_Lock);

    /// Empties the list. The caller holds the write lock.
    void clear() ZEBTDX_REQUIRES(ZebDeleteLock, m_Lock);

    /// The next hash to evict, null when the list is empty. The caller holds at least the read
    /// lock.
    ZebDataHash* oldest() const ZEBTDX_REQUIRES_SHARED(m_Lock);

    /// The lock that guards the list, for the operations that require the caller to hold it.
    QReadWriteLock& lock() const ZEBTDX_RETURN_CAPABILITY(m_Lock);

private:
    Q_DISABLE_COPY(ZebDataBlockLru)

    void link(ZebDataBlockLruNode* node) ZEBTDX_REQUIRES(m_Lock);
    void unlink(ZebDataBlockLruNode* node) ZEBTDX_REQUIRES(m_Lock);

    // m_Lock also guards the nodes of the list. The place of a parked hash has no node. A place
    // stays at its address until it is removed.
    std::unordered_map<ZebDataHash*, std::optional<ZebDataBlockLruNode>>
        m_Items ZEBTDX_GUARDED_BY(m_Lock);
    ZebDataBlockLruNode* m_Newest ZEBTDX_GUARDED_BY(m_Lock) ZEBTDX_PT_GUARDED_BY(m_Lock) = nullptr;
    ZebDataBlockLruNode* m_Oldest ZEBTDX_GUARDED_BY(m_Lock) ZEBTDX_PT_GUARDED_BY(m_Lock) = nullptr;
    // The length of the list. Changed with m_Lock held, read without; its readers need no order.
    std::atomic<int> m_Count{0};
    mutable QReadWriteLock m_Lock ZEBTDX_LOCK_LEVEL_5;
};

/// How many nodes exist, over all lists.
/// Kept on purpose: nothing in the library reads it; hosts and debuggers may.
extern ZEBTDX_EXPORT QAtomicInt m_LruNodeCount;
