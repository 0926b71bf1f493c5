#pragma once

#include "hash/ZebSmartPointer.h"
#include "support/ZebTdxExport.h"
#include "support/ZebTdxMutex.h"

#include <QAtomicInt>
#include <QAtomicInteger>
#include <QByteArray>
#include <QString>

#include <atomic>

class ZebHashManager;

/// The identity of one content: a digest of its bytes, a count of holders, and what the host and
/// the manager note about that content.
///
/// A hash is born on the heap, is interned by ZebHashManager so that equal digests are one object,
/// and is then held by ZebSmartPointer alone; the last release ends it. It may also stand on the
/// stack or as a member, as a plain value that nobody interns; such an object must never be given
/// to a ZebSmartPointer.
///
/// Thread safety: any thread may hold smart pointers to a hash and call its const operations. The
/// digest of a hash that others can see does not change. userId(), isDontCache() and isPreloading()
/// are single words without order between them.
///
/// Locks: m_Mutex stands at level 3 of the lock order, inside the registry's mutex.
class ZEBTDX_EXPORT ZebDataHash
{
public:
    /// The length of a digest in bytes. Other multiples of 4 up to 252 are legal for an object of
    /// one's own; every block's identity is a Hash512.
    enum Size : int
    {
        Hash256 = 32,
        Hash512 = 64,
        Hash1024 = 128
    };

    /// No digest; the size is Hash256.
    ZebDataHash();

    /// A plain value of the same digest and user id, also with the mark of a do-not-cache block.
    /// Nobody holds the copy, and no preload is under way for it.
    ZebDataHash(const ZebDataHash& other);

    /// Digests `bytes`. A size of 0 is fatal: "Hash Size is Zero". Takes no lock.
    ZebDataHash(const QByteArray& bytes, Size size);

    /// Digests `length` bytes at `bytes`; 0 bytes are legal. A size of 0 is fatal as above.
    ZebDataHash(const unsigned char* bytes, qint64 length, Size size);

    /// Takes `size` bytes at `digest` as the digest and computes nothing. A size of 0 is fatal as
    /// above.
    ZebDataHash(Size size, unsigned char* digest);

    /// Takes the digest from its text form, as fromString() does on an object of size Hash256.
    ZebDataHash(const QString& text);

    /// Fatal when somebody still holds the object: "[ !! ] Delete called with non-null reference
    /// count:" with text form and count on the next line.
    ~ZebDataHash();

    /// Takes digest and user id.
    /// Kept on purpose: the do-not-cache mark of the target stays as it is, unlike in a copy that
    /// is constructed; a hash that the manager has marked cannot lose its mark by assignment.
    ZebDataHash& operator=(const ZebDataHash& other);

    /// Equal size and equal digest. User id and marks play no part.
    bool operator==(const ZebDataHash& other) const;
    bool operator!=(const ZebDataHash& other) const;

    /// Orders by size first, then by the digest's bytes as unsigned numbers in memory order.
    bool operator<(const ZebDataHash& other) const;

    /// The digest's bytes, owned by this object. Not detached: a holder must not write.
    unsigned char* data() const;

    Size size() const;

    /// The digest as 32-bit little-endian words in decimal, joined by "-". It is also the name of
    /// the block's file, so it never varies. Fatal when the size is below 1 ("m_Size is Zero or
    /// less") or the digest has another length ("Size of data is incorrect is %1, should be %2").
    QString toString() const;

    /// Takes the digest from its text form. The old digest is dropped first, whatever follows. A
    /// text of another width than 8, 16 or 32 groups leaves the size as it was and the digest
    /// empty, with a debug line when there is any group. A group that is no number, or does not
    /// fit in 32 bits, counts as 0.
    void fromString(const QString& text);

    /// Qt's hash of the digest's bytes: what the registry is keyed by.
    unsigned int qhash() const;

    /// A value that the host attaches to this content. It starts at 0 and stays while the object
    /// lives, whoever looks it up.
    int userId() const;
    void setUserId(int id);

    /// Whether the block of this hash never goes to the disk cache.
    bool isDontCache() const;
    void setDontCache(bool dontCache);

    /// Whether a preload of the block is under way.
    bool isPreloading() const;
    void setPreloading(bool preloading);

    /// How many holders there are at this moment.
    int refCount() const;

    /// Takes the mutex of this hash if that needs no wait, and says whether it did. While it is
    /// held, no reference on this hash is taken or released. The manager holds it so across an
    /// eviction.
    bool tryLock();

    /// Gives back what tryLock() took.
    void unlock();

    /// How many objects of this class exist, interned or not; temporaries count.
    static int hashCount();

protected:
    friend class ZebSmartPointer<ZebDataHash>;
    friend class ZebHashManager;

    /// Writes the digest of `length` bytes at `bytes` into m_Data, which has the right size
    /// already. A length or size that cannot be digested leaves m_Data alone, with a debug line.
    /// Takes no lock.
    void calculate(const unsigned char* bytes, qint64 length);

    /// Adds a holder. Takes m_Mutex. The argument has no effect.
    void incRef(void* holder);

    /// Takes a holder away; the last one frees the block of this hash and ends the object. Fatal
    /// when there is no holder: "No Positive Ref Count in Dec Ref". Takes the registry's mutex and
    /// m_Mutex, and the delete lock with neither of them held. The argument has no effect.
    void decRef(void* holder);

    /// Does nothing: counts do not move when two holders exchange their objects.
    void swap(void* from, void* to);

private:
    friend class ZebDataBlockManager;

    /// Writes the first `length` characters of the text form to `out`, or all of it when that is
    /// less, and returns how many there are. Fatal as toString() is. For whoever needs the
    /// beginning only, and often.
    int leadingText(QChar* out, int length) const;

    /// A holder of this hash, or null when its last release has been decided: such a hash must not
    /// be held anew. For whoever knows the hash by a table only. Takes m_Mutex.
    ZebSmartPointer<ZebDataHash> holdUnlessEnding();

    /// Ends the process when there is no digest of the right length to write.
    void requireDigest() const;

    Size m_Size;
    QByteArray m_Data;
    QAtomicInt m_RefCount;
    QAtomicInteger<int> m_UserId;
    std::atomic<bool> m_DontCache;

    // Orders taking a reference against the decision of a last release, and pins the hash while
    // the manager evicts its block. Recursive. Taken inside the registry's mutex, never outside it.
    ZebTdxMutex m_Mutex;

    std::atomic<bool> m_Preloading;

    static QAtomicInt m_NumHashes;
};

/// A hash of the pointer and not of the content, for tables keyed by interned hashes: twins of
/// equal content differ.
ZEBTDX_EXPORT unsigned int qHash(const ZebSmartPointer<ZebDataHash>& pointer);
