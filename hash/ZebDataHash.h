#pragma once

#include "hash/ZebSmartPointer.h"
#include "support/ZebTdxExport.h"
#include "support/ZebTdxMutex.h"
#include "support/ZebThreadSafety.h"

#include <QAtomicInt>
#include <QAtomicInteger>
#include <QByteArray>
#include <QString>

#include <atomic>

class ZebDataBlock;
class ZebHashManager;
struct ZebThreadSlot;

/// The identity of a block: the digest of its bytes, a reference count, and what the host and the
/// manager attach to that identity.
///
/// An interned hash is allocated on the heap and registered with ZebHashManager, so that equal
/// digests share one object. Only ZebSmartPointer holds it; the last release destroys it. A hash
/// may also be a plain value, on the stack or as a member; such an object must never be given to a
/// ZebSmartPointer.
///
/// Thread safety: any thread may hold smart pointers to a hash and call its const operations. The
/// digest of an interned hash does not change. userId(), isDontCache() and isPreloading() are
/// atomic, with no order between them.
///
/// The hash of a resident block also has what its readers need: the block, its pins, and its place
/// in the LRU. docs/CONCURRENCY.md explains how they are used without a lock.
///
/// Locks: m_Mutex is at level 2 of the lock order, inside the registry's mutex.
class ZEBTDX_EXPORT ZebDataHash
{
public:
    /// The length of a digest in bytes. Every block's identity is a Hash512. A plain value may have
    /// any other positive length, but fromString() only reads digests of these three.
    enum Size : int
    {
        Hash256 = 32,
        Hash512 = 64,
        Hash1024 = 128
    };

    /// No digest; the size is Hash256.
    ZebDataHash();

    /// A plain value of the same size, digest, user id and isDontCache(). The copy has no holders
    /// and is not marked as preloading.
    ZebDataHash(const ZebDataHash& other);

    /// Computes the digest of `bytes`. A size of 0 is fatal: "Hash Size is Zero". Takes no lock.
    ZebDataHash(const QByteArray& bytes, Size size);

    /// Computes the digest of `length` bytes at `bytes`; 0 bytes are legal. A size of 0 is fatal as
    /// above.
    ZebDataHash(const unsigned char* bytes, qint64 length, Size size);

    /// Copies `size` bytes at `digest` as the digest. A size of 0 is fatal as above.
    ZebDataHash(Size size, unsigned char* digest);

    /// Reads the digest from its text form, as fromString() does on an object of size Hash256.
    ZebDataHash(const QString& text);

    /// Fatal if the object still has a holder: "[ !! ] Delete called with non-null reference
    /// count:", with text form and count on the next line.
    ~ZebDataHash();

    /// Copies size, digest and user id.
    /// Kept on purpose: isDontCache() of the target stays, unlike in a constructed copy; a hash
    /// that the manager has marked cannot lose its mark by assignment.
    ZebDataHash& operator=(const ZebDataHash& other);

    /// Equal size and equal digest. User id and flags are not compared.
    bool operator==(const ZebDataHash& other) const;
    bool operator!=(const ZebDataHash& other) const;

    /// Orders by size, then by the bytes of the digest.
    bool operator<(const ZebDataHash& other) const;

    /// The bytes of the digest, owned by this object. Not detached: the caller must not write to
    /// them.
    unsigned char* data() const;

    Size size() const;

    /// The digest as 32-bit little-endian words in decimal, joined by "-". This is also the name of
    /// the block's file, so it must not change between versions. Fatal if the size is below 1
    /// ("m_Size is Zero or less") or the digest has another length ("Size of data is incorrect is
    /// %1, should be %2").
    QString toString() const;

    /// Reads the digest from its text form. The old digest is lost in any case. A text with other
    /// than 8, 16 or 32 groups leaves the size unchanged and the digest empty; if it has any group,
    /// a debug line reports it. A group that is not a number or exceeds 32 bits is read as 0.
    void fromString(const QString& text);

    /// Qt's hash of the bytes of the digest.
    unsigned int qhash() const;

    /// A value that the host attaches to this identity, initially 0. It stays as long as the object
    /// lives, and every look-up of the same bytes finds it.
    int userId() const;
    void setUserId(int id);

    /// Whether the block of this hash is never written to the disk cache.
    bool isDontCache() const;
    void setDontCache(bool dontCache);

    /// Whether a preload of the block is under way.
    bool isPreloading() const;
    void setPreloading(bool preloading);

    /// How many smart pointers hold the object right now.
    int refCount() const;

    /// Locks this hash if that needs no wait. Returns whether it did; the same thread may lock it
    /// again. While it is locked, no other thread adds or releases a reference to this hash, so
    /// none opens an accessor of its block; they wait. Only a look-up may add one first, and waits
    /// then. The manager locks it during an eviction,
    /// across calls, which the thread-safety analysis cannot follow; so this has no attributes.
    bool tryLock();

    /// Releases what tryLock() took.
    void unlock();

    /// How many objects of this class exist, interned or not, temporaries included.
    static int hashCount();

protected:
    friend class ZebSmartPointer<ZebDataHash>;
    friend class ZebHashManager;

    /// Writes the digest of `length` bytes at `bytes` into m_Data, which already has the right
    /// size. If length or size is not valid, m_Data stays and a debug line reports it. Takes no
    /// lock.
    void calculate(const unsigned char* bytes, qint64 length);

    /// Adds a holder. Takes m_Mutex only to wait while another thread holds the hash by tryLock().
    /// The argument has no effect.
    void incRef(void* holder);

    /// Removes a holder. The last release frees the block of this hash and destroys the object.
    /// Fatal if there is no holder: "No Positive Ref Count in Dec Ref". Waits like incRef(). The
    /// last release takes the registry's mutex and m_Mutex, and the delete lock after releasing
    /// both. The argument has no effect.
    void decRef(void* holder);

    /// Does nothing: exchanging two smart pointers changes no count.
    void swap(void* from, void* to);

private:
    friend class ZebConstAccessor;
    friend class ZebDataBlockLru;
    friend class ZebDataBlockManager;
    friend class ZebDataReference;

    /// What is known about the residency of a block without a lock.
    enum class Residency
    {
        Absent,
        Resident,
        /// Known only with the delete lock held.
        Unknown
    };

    // The operations of readers on a resident block. They take no lock, allocate nothing and never
    // wait. Each either succeeds, or changes nothing and returns null, false or Unknown; the caller
    // then takes the delete lock. The caller holds a reference. Hidden, so that calls inside the
    // library are direct.

    /// Pins the block and adds a reference for the new accessor. Null: not done.
    ZEBTDX_NO_EXPORT ZebDataBlock* tryOpen();

    /// The same for the copy of an accessor of `block`. Returns whether it was done.
    ZEBTDX_NO_EXPORT bool tryOpenAgain(const ZebDataBlock* block);

    /// Undoes tryOpen(): unpins `block`, which becomes the most recently used one with its last
    /// accessor, and removes the accessor's reference. Returns whether it was done; the hash may
    /// have ended then.
    ZEBTDX_NO_EXPORT bool tryClose(const ZebDataBlock* block);
    ZEBTDX_NO_EXPORT bool closeInside(const ZebDataBlock* block, ZebThreadSlot* slot);

    /// Whether the block is resident. Makes an evictable block the most recently used one.
    ZEBTDX_NO_EXPORT Residency tryUse();

    /// Keeps the block where it is until endCopy(), without pinning it. Null: not done.
    ZEBTDX_NO_EXPORT ZebDataBlock* tryBeginCopy();
    ZEBTDX_NO_EXPORT void endCopy();

    /// Adds a reference unless the hash is locked.
    ZEBTDX_NO_EXPORT bool tryAddReference();

    /// incRef() without its wait: returns false if another thread has locked the hash.
    bool tryIncRef();

    /// Waits until no other thread has the hash locked.
    void awaitUnlocked();

    /// Adds a reference in any case. The caller holds the mutex of this hash or of the registry.
    /// Returns the word before.
    ZEBTDX_NO_EXPORT quint64 addReference();

    /// Removes a reference unless it is the last one, and returns whether it did. The caller holds
    /// m_Mutex.
    ZEBTDX_NO_EXPORT bool removeUnlessLast();

    /// Removes a reference and returns whether it was the last one. The caller holds m_Mutex and
    /// the registry's mutex.
    ZEBTDX_NO_EXPORT bool removeReference();

    /// Raises m_Stamp to the present time.
    ZEBTDX_NO_EXPORT void raiseStamp();

    /// Notes the use of an evictable block, or of one about to become evictable: marks the hash as
    /// used and pushes it on the stack of `slot`. False when it was marked already.
    ZEBTDX_NO_EXPORT bool pushUse(ZebThreadSlot* slot, quint64 word);

    /// How many accessors pin the resident block.
    int pins() const;

    /// The resident block, null when there is none. Needs the delete lock, or a pin.
    ZebDataBlock* residentBlock() const { return m_Block.load(std::memory_order_relaxed); }

    /// Writes the first `length` characters of the text form to `out`, or all of it if it is
    /// shorter, and returns how many. Fatal as toString(). For callers that need the beginning
    /// alone, and often.
    int leadingText(QChar* out, int length) const;

    /// A smart pointer to this hash, or null if its last release has been decided: such a hash must
    /// not get a new holder. For callers that found the hash in a table. Takes m_Mutex.
    ZebSmartPointer<ZebDataHash> holdUnlessEnding();

    /// The text form, or an empty text for an object without a whole digest. For diagnostics, which
    /// must not end the process.
    QString textIfWhole() const;

    /// Ends the process unless the digest has the right length.
    void requireDigest() const;

    Size m_Size;
    QAtomicInteger<int> m_UserId;
    QByteArray m_Data;

    // References, pins and marks: see hash/ZebHashWord.h.
    std::atomic<quint64> m_Word{0};

    // The resident block. Written before the word becomes resident, and before it ceases to be,
    // when no reader can reach it.
    std::atomic<ZebDataBlock*> m_Block{nullptr};

    // The time of the last use, by ZebUseClock. Written before the word is changed to make the
    // block evictable, or with the delete lock held. Other uses only raise it: they may overlap.
    std::atomic<quint64> m_Stamp{0};

    // The next hash on a stack of used hashes. Written by the thread that has set the mark.
    std::atomic<ZebDataHash*> m_NextUsed{nullptr};

    std::atomic<bool> m_DontCache;
    std::atomic<bool> m_Preloading;

    // The place in a list of ZebDataBlockLru: which list it is, the stamp by which that is sorted,
    // and the neighbours. Guarded by the delete lock.
    signed char m_Place = 2; // ZebDataBlockLru::Nowhere
    quint64 m_PlaceStamp = 0;
    ZebDataHash* m_Newer = nullptr;
    ZebDataHash* m_Older = nullptr;

    // Held by the thread that has locked the hash, so that others can wait for it; orders slow
    // changes of the count against the decision of a last release. Recursive. Taken inside the
    // registry's mutex, never outside it.
    ZebTdxMutex m_Mutex ZEBTDX_LOCK_LEVEL_2_INNER;

    // How often the owner of m_Mutex has called tryLock(). Guarded by m_Mutex.
    int m_LockCount = 0;

    static QAtomicInt m_NumHashes;
};

/// A hash of the pointer, not of the digest, for tables keyed by interned hashes. Two objects of
/// equal digest have different values.
ZEBTDX_EXPORT unsigned int qHash(const ZebSmartPointer<ZebDataHash>& pointer);
