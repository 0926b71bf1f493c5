#pragma once

#include "support/ZebTdxExport.h"

#include <QAtomicInt>
#include <QHash>
#include <QReadWriteLock>

class ZebDataHash;

/// One entry of the list. It holds no reference on its hash: a hash that ends has left the list
/// before.
struct ZEBTDX_EXPORT ZebDataBlockLruNode
{
    explicit ZebDataBlockLruNode(ZebDataHash* hash);
    ~ZebDataBlockLruNode();
    ZebDataBlockLruNode(const ZebDataBlockLruNode&) = delete;
    ZebDataBlockLruNode& operator=(const ZebDataBlockLruNode&) = delete;

    ZebDataHash* m_Hash;
    /// The neighbour toward the oldest end, null there.
    ZebDataBlockLruNode* m_Older = nullptr;
    /// The neighbour toward the newest end, null there.
    ZebDataBlockLruNode* m_Newer = nullptr;
};

/// The resident blocks that may be evicted, from the most to the least recently used.
///
/// Invariant: every hash of the side table has exactly one node in the list, and the list runs from
/// m_Newest over m_Older to m_Oldest and back over m_Newer. All operations take constant time, but
/// for clear().
///
/// Locks: m_Lock is level 5, the innermost of all: nothing else is taken or called inside it.
/// contains(), count(), add() and touch() take it themselves; the others are for a caller that
/// holds it, since eviction looks and removes under one hold. Changes run under the delete lock as
/// well, so the read lock serves those who do not hold that one.
class ZEBTDX_EXPORT ZebDataBlockLru
{
public:
    ZebDataBlockLru();
    ~ZebDataBlockLru();

    /// Whether the hash is listed. Takes the read lock.
    bool contains(ZebDataHash* hash) const;

    /// How many hashes are listed. Takes the read lock.
    int count() const;

    /// Lists the hash as the newest; nothing when it is listed. Takes the write lock.
    void add(ZebDataHash* hash);

    /// Makes the hash the newest; nothing when it is not listed. Takes the write lock.
    void touch(ZebDataHash* hash);

    /// Takes the hash off the list; nothing when it is not listed. The caller holds the write lock.
    void remove(ZebDataHash* hash);

    /// Empties the list. The caller holds the write lock.
    void clear();

    /// The next victim, null when the list is empty. The caller holds the lock, for reading at
    /// least.
    ZebDataHash* oldest() const;

    /// The lock that guards the list, for the operations that leave taking it to their caller.
    QReadWriteLock& lock() const;

private:
    Q_DISABLE_COPY(ZebDataBlockLru)

    void link(ZebDataBlockLruNode* node);
    void unlink(ZebDataBlockLruNode* node);

    QHash<ZebDataHash*, ZebDataBlockLruNode*> m_Items;
    ZebDataBlockLruNode* m_Newest = nullptr;
    ZebDataBlockLruNode* m_Oldest = nullptr;

    // Guards all of the above.
    mutable QReadWriteLock m_Lock;
};

/// How many nodes of all lists exist. Nothing reads it; it is there to be looked at.
extern ZEBTDX_EXPORT QAtomicInt m_LruNodeCount;
