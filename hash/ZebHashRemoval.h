#pragma once

// Internal: the removal of an orphaned file, as the registry sees it. Not installed.

#include "hash/ZebStackDigest.h"

#include <QString>

struct ZebHashShard;

/// Keeps one digest out of the registry while the file of that digest is removed.
///
/// The constructor decides: if a hash of the digest is registered, its file must stay. Otherwise
/// the digest counts as being removed until the destructor, and a thread that interns it waits. So
/// bytes that are added again find no file, and are written again.
///
/// A thread may wait with the delete lock held. Therefore the owner, between construction and
/// destruction, does nothing but the removal, takes no lock of the library, and waits for no other
/// thread. Neither does the destructor take a mutex of the registry's shards, nor does it allocate.
///
/// Thread safety: an object belongs to the thread that made it; any number may exist, also of one
/// digest.
class ZebHashRemoval
{
public:
    /// @param text the text form of the digest, which is the name of the file
    explicit ZebHashRemoval(const QString& text);
    ~ZebHashRemoval();
    ZebHashRemoval(const ZebHashRemoval&) = delete;
    ZebHashRemoval& operator=(const ZebHashRemoval&) = delete;

    /// Whether a hash of the digest was registered at the time of the decision.
    bool isHashLive() const { return m_HashIsLive; }

private:
    friend class ZebHashManager;
    friend class ZebHashRemovalList;

    const ZebStackDigest m_Digest;

    // That of the digest; set while the removal is in the list.
    ZebHashShard* m_Shard;

    // Links the removals in progress; guarded by the mutex of ZebHashRemovalList. A list of
    // objects that exist anyway: neither a mark nor its end can fail.
    ZebHashRemoval* m_Next;

    const bool m_HashIsLive;
};
