#pragma once

#include "hash/ZebDataHash.h"
#include "hash/ZebSmartPointer.h"
#include "support/ZebTdxExport.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <memory>

class ZebHashRemoval;
class ZebHashRemovalList;
class ZebHashShards;
class ZebHashTable;
struct ZebDigestView;

/// The registry that interns hashes. While a hash has a holder, every look-up of equal bytes
/// returns the same object; so for interned hashes equal pointers mean equal digests.
///
/// An entry points at a hash with at least one holder, except for the short time of a last release.
/// No two entries have equal digests. The registry holds no reference itself.
///
/// Thread safety: any thread may call any operation except validateState(), which is for a quiet
/// system.
///
/// While a collector removes the file of a digest, a thread that interns this digest waits.
///
/// Locks: the registry consists of shards, each with its own mutex. They are at level 2 of the lock
/// order; the mutex of a hash may be taken inside them. All that concerns one digest takes the
/// mutex of one shard; hashCount() and the diagnostics take those of all shards.
class ZEBTDX_EXPORT ZebHashManager
{
public:
    /// Accesses no hash.
    ~ZebHashManager();

    /// The registry of the process, constructed at first use with a debug line that names the
    /// thread. Not destroyed at process exit: smart pointers may be released to the very end.
    static ZebHashManager& instance();

    /// The interned hash of `length` bytes at `bytes`, of size Hash512. The digest is computed
    /// before any lock is taken, so concurrent callers with equal bytes each compute it. Like the
    /// other getHash(), it allocates nothing if the hash is registered.
    ZebSmartPointer<ZebDataHash> getHash(unsigned char* bytes, qint64 length);
    ZebSmartPointer<ZebDataHash> getHash(const QByteArray& bytes);

    /// The interned hash of a text form. A text that fromString() cannot read is interned as an
    /// object with no digest.
    ZebSmartPointer<ZebDataHash> getHash(const QString& text);

    /// Interns an object that the caller allocated, and takes ownership of it: if a hash of equal
    /// digest is registered already, `hash` is deleted and that one is returned. Null gives null.
    ZebSmartPointer<ZebDataHash> addHash(ZebDataHash* hash);

    /// Whether a hash of this text form is registered. Creates no entry and changes no counter.
    bool isHashLive(const QString& text) const;

    /// How many hashes are registered.
    int hashCount() const;

    /// Prints the counters as debug lines.
    void dumpStats();

    /// Sets the four counters to 0.
    void clearStats();

    /// Prints pointer, count and text form of every registered hash as debug lines. The text of a
    /// hash without a whole digest is empty.
    void printDebugInfo();

    /// Appends a smart pointer to every registered hash to `list`, which is not cleared first.
    /// They keep the hashes alive until the caller drops them.
    void snapshot(QList<ZebSmartPointer<ZebDataHash>>& list) const;

    /// Prints every registered hash as debug lines: cached hashes as leaked, hashes of uncached
    /// blocks as live. The text of a hash without a whole digest is empty. For a quiet system
    /// during shutdown: takes no lock.
    void validateState();

protected:
    friend class ZebDataBlockManager;
    friend class ZebDataHash;
    friend class ZebHashingJob;
    friend class ZebHashRemoval;

    ZebHashManager();

private:
    Q_DISABLE_COPY(ZebHashManager)

    /// Returns what getHash() returns for bytes with this digest, and counts as it does.
    ZebSmartPointer<ZebDataHash> intern(const ZebDigestView& digest);

    /// The body of addHash(). The caller holds the mutex of the digest's shard.
    ZebSmartPointer<ZebDataHash> addHash_Unlocked(ZebDataHash* hash);

    /// Removes one holder. Returns whether it was the last: the hash is no longer registered then,
    /// and the caller destroys it. Only ZebDataHash calls it, with no lock of this level held.
    bool derefRemoveHash(ZebDataHash* hash);

    /// Marks a digest as being removed unless it is registered, and returns whether it did: one
    /// decision, with the shard of the digest locked.
    bool beginRemoval(ZebHashRemoval* removal);

    /// Clears the mark and wakes the threads that wait for it. Takes no mutex of a shard.
    void endRemoval(ZebHashRemoval* removal);

    /// The digest of a hash, which owns it.
    static ZebDigestView digestOf(const ZebDataHash& hash);

    /// The hash of this digest and number in a table, or null.
    static ZebDataHash* find(const ZebHashTable& table, quint64 number,
                             const ZebDigestView& digest);

    /// Adds the count of a look-up to the hash that it found. The caller holds the mutex of the
    /// hash's shard, where a last release is decided, and need not wait for that of the hash.
    /// Returns whether a thread had locked the hash.
    static bool addBareCount(ZebDataHash* hash);

    /// Turns that count into a smart pointer. Waits for the mutex of a locked hash, and may release
    /// it as the last holder then; so the caller holds no mutex of a shard.
    static ZebSmartPointer<ZebDataHash> takeBareCount(ZebDataHash* hash, bool isLocked);

    const std::unique_ptr<ZebHashShards> m_Shards;
    const std::unique_ptr<ZebHashRemovalList> m_Removals;
};
