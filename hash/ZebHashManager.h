#pragma once

#include "hash/ZebDataHash.h"
#include "hash/ZebHashHandle.h"
#include "hash/ZebSmartPointer.h"
#include "support/ZebTdxExport.h"
#include "support/ZebThreadSafety.h"

#include <QByteArray>
#include <QList>
#include <QMutex>
#include <QSet>
#include <QString>
#include <QWaitCondition>

#include <atomic>

class ZebHashRemoval;

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
/// Locks: m_Mutex is at level 3 of the lock order; the mutex of a hash may be taken inside it.
/// m_RemovalMutex is a leaf lock.
class ZEBTDX_EXPORT ZebHashManager
{
public:
    /// Accesses no hash.
    ~ZebHashManager();

    /// The registry of the process, constructed at first use with a debug line that names the
    /// thread. Not destroyed at process exit: smart pointers may be released to the very end.
    static ZebHashManager& instance();

    /// The interned hash of `length` bytes at `bytes`, of size Hash512. The digest is computed
    /// before any lock is taken, so concurrent callers with equal bytes each compute it.
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
    friend class ZebDataHash;
    friend class ZebHashingJob;
    friend class ZebHashRemoval;

    ZebHashManager();

private:
    Q_DISABLE_COPY(ZebHashManager)

    /// Returns what getHash() returns for bytes with this digest, of size Hash512, and counts as it
    /// does. For bytes that were digested together with others.
    ZebSmartPointer<ZebDataHash> getDigested(const unsigned char* digest);

    /// Interns `fresh` for getHash(). Takes ownership.
    ZebSmartPointer<ZebDataHash> intern(ZebDataHash* fresh);

    /// The body of addHash().
    ZebSmartPointer<ZebDataHash> addHash_Unlocked(ZebDataHash* hash) ZEBTDX_REQUIRES(m_Mutex);

    /// Removes one holder. Returns whether it was the last: the hash is no longer registered then,
    /// and the caller destroys it. Only ZebDataHash calls it, with no lock of this level held.
    bool derefRemoveHash(ZebDataHash* hash);

    /// Marks a digest as being removed unless it is registered, and returns whether it did: one
    /// decision, with the registry locked.
    bool beginRemoval(ZebHashRemoval* removal);

    /// Clears the mark and wakes the threads that wait for it. Takes m_RemovalMutex alone.
    void endRemoval(ZebHashRemoval* removal);

    /// Waits until the digest of this hash is not being removed, with m_Mutex released by one level
    /// meanwhile. On return no removal of it can begin before the registry is unlocked.
    void awaitRemoval(const ZebDataHash& hash) ZEBTDX_REQUIRES(m_Mutex);

    /// Whether the digest of this hash is being removed.
    bool isBeingRemoved(const ZebDataHash& hash) const ZEBTDX_REQUIRES(m_RemovalMutex);

    QSet<ZebHashHandle> m_Hashes ZEBTDX_GUARDED_BY(m_Mutex);
    int m_Requests ZEBTDX_GUARDED_BY(m_Mutex) = 0;
    int m_CacheHits ZEBTDX_GUARDED_BY(m_Mutex) = 0;
    int m_CacheMisses ZEBTDX_GUARDED_BY(m_Mutex) = 0;
    int m_Removes ZEBTDX_GUARDED_BY(m_Mutex) = 0;

    // Recursive, so that a thread may drop a holder while it walks the table.
    mutable QMutex m_Mutex ZEBTDX_LOCK_LEVEL_3;

    // A leaf lock, taken inside m_Mutex. Qt's condition cannot release a recursive mutex.
    QMutex m_RemovalMutex ZEBTDX_ACQUIRED_AFTER(m_Mutex);
    QWaitCondition m_RemovalEnded;

    // The removals in progress, linked by their m_Next. None of their digests is registered: a mark
    // is set with m_Mutex held too, and every insertion looks for marks first.
    ZebHashRemoval* m_Removals ZEBTDX_GUARDED_BY(m_RemovalMutex) = nullptr;

    // Their number, so that interning rarely takes the second mutex. Grows with both mutexes held
    // and shrinks with m_RemovalMutex held: with m_Mutex held, 0 proves that there is none.
    std::atomic<int> m_RemovalCount{0};
};
