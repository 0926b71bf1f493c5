#pragma once

#include "hash/ZebDataHash.h"
#include "hash/ZebHashHandle.h"
#include "hash/ZebSmartPointer.h"
#include "support/ZebTdxExport.h"

#include <QByteArray>
#include <QList>
#include <QMutex>
#include <QSet>
#include <QString>

/// The registry that interns hashes: while any holder of a content exists, every look-up of that
/// content gives the same object, so pointer equality of interned hashes means equal content.
///
/// An entry points at a hash with at least one holder, but for the brief moment of a last release,
/// and no two entries have equal content. The registry holds no reference of its own.
///
/// Thread safety: any thread may call every operation but validateState(), which is for a quiet
/// system.
///
/// Locks: m_Mutex stands at level 3 of the lock order; the mutex of a hash may be taken inside it.
class ZEBTDX_EXPORT ZebHashManager
{
public:
    /// Touches no hash: holders may outlive the registry.
    ~ZebHashManager();

    /// The one registry, built at first use with a debug line that names the thread.
    static ZebHashManager& instance();

    /// The interned hash of `length` bytes at `bytes`, of size Hash512. The digest is computed
    /// before any lock is taken, so callers of equal bytes at one time compute it each.
    ZebSmartPointer<ZebDataHash> getHash(unsigned char* bytes, qint64 length);
    ZebSmartPointer<ZebDataHash> getHash(const QByteArray& bytes);

    /// The interned hash of a text form. A text of unknown width is interned all the same, as an
    /// object with no digest.
    ZebSmartPointer<ZebDataHash> getHash(const QString& text);

    /// Interns a heap object of the caller's and takes its ownership: when a twin is registered
    /// already, `hash` is deleted and the result points at the twin. Null gives null.
    ZebSmartPointer<ZebDataHash> addHash(ZebDataHash* hash);

    /// Whether a hash of that text form is registered. Creates no entry and counts nothing.
    bool isHashLive(const QString& text) const;

    /// How many hashes are registered.
    int hashCount() const;

    /// Writes the counters as debug lines.
    void dumpStats();

    /// Sets the four counters to 0.
    void clearStats();

    /// Writes pointer, count and text form of every registered hash as debug lines.
    void printDebugInfo();

    /// Appends a holder of every registered hash to `list`, which is not cleared first. The
    /// holders keep the hashes alive until the caller drops them.
    void snapshot(QList<ZebSmartPointer<ZebDataHash>>& list) const;

    /// Writes every registered hash that is left, as debug lines of leaked cached hashes and of
    /// live do-not-cache hashes. For a quiet system at its shut-down: takes no lock.
    void validateState();

protected:
    friend class ZebDataHash;
    friend class ZebHashingJob;

    ZebHashManager();

private:
    Q_DISABLE_COPY(ZebHashManager)

    /// What getHash() gives for bytes of this digest, of size Hash512, and counted likewise. For
    /// bytes that have been digested together with others.
    ZebSmartPointer<ZebDataHash> getDigested(const unsigned char* digest);

    /// Interns `fresh` on behalf of getHash(). Takes ownership.
    ZebSmartPointer<ZebDataHash> intern(ZebDataHash* fresh);

    /// The work of addHash(), with m_Mutex held by the caller.
    ZebSmartPointer<ZebDataHash> addHash_Unlocked(ZebDataHash* hash);

    /// Takes one holder away. True when that was the last one: the hash is out of the registry
    /// then, and the caller ends it. Called by ZebDataHash alone, with no lock of this level held.
    bool derefRemoveHash(ZebDataHash* hash);

    QSet<ZebHashHandle> m_Hashes;
    int m_Requests = 0;
    int m_CacheHits = 0;
    int m_CacheMisses = 0;
    int m_Removes = 0;

    // Guards the table and the four counters. Recursive, so that a holder may be dropped while a
    // table walk of the same thread goes on.
    mutable QMutex m_Mutex;
};
