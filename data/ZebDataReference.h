#pragma once

#include "data/ZebBlockFuture.h"
#include "data/ZebConstAccessor.h"
#include "data/ZebModifyAccessor.h"
#include "hash/ZebDataHash.h"
#include "hash/ZebSmartPointer.h"
#include "manager/ZebDataBlockManager.h"
#include "support/ZebTdxExport.h"
#include "support/ZebThreadSafety.h"

#include <QAtomicInt>
#include <QString>

#include <cstddef>

/// A host's handle to a block: a small value that is cheap to copy.
///
/// It is null, pending (its block is still being hashed) or resolved (its hash is known). The first
/// operation that needs the hash waits for the job and resolves the reference; these operations say
/// "Waits". A reference does not pin its block, which may be on disk only. It holds the hash, not
/// the block, so it may outlive the manager's cleanUp().
///
/// Thread safety: a value. Each thread uses its own copy: two threads must not use one object at
/// once, not even through const operations, since these may resolve it. Copies of a pending
/// reference are resolved independently.
///
/// Locks: no lock of its own, only those of the operations it calls. No operation that waits may be
/// called with the delete lock held.
class ZEBTDX_EXPORT ZebDataReference
{
public:
    /// Null.
    ZebDataReference();

    /// Refers to the same block. The copy of a pending reference is pending; does not wait.
    ZebDataReference(const ZebDataReference& other);

    /// Resolved, or null for a null hash.
    ZebDataReference(const ZebSmartPointer<ZebDataHash>& hash);

    /// Pending, or null for a null job.
    ZebDataReference(const ZebSmartPointer<ZebBlockFuture>& job);

    /// Dropping a pending reference may wait until its job has finished.
    ~ZebDataReference();

    ZebDataReference& operator=(const ZebDataReference& other);

    /// Drops the hash and holds the job instead: the reference is pending then.
    ZebDataReference& operator=(const ZebSmartPointer<ZebBlockFuture>& job);

    /// Whether both refer to the same hash object and the same job object. So resolved references
    /// to equal bytes are equal, while a pending reference never equals a resolved one. Does not
    /// wait.
    bool operator==(const ZebDataReference& other) const;
    bool operator!=(const ZebDataReference& other) const;

    /// Exchanges both. Does not wait.
    void swap(ZebDataReference& other);

    /// Whether it has neither a hash nor a job. Does not wait.
    bool isNull() const;

    /// Whether the reference is pending. Does not wait.
    bool hasHashJob() const;

    /// Waits until the reference is resolved. Fatal if the job finishes without a hash: "Null Value
    /// for m_DataHash"; this holds for all operations that wait.
    void resolveWork() const ZEBTDX_EXCLUDES(ZebDeleteLock);

    /// The text form of the hash, or "NULL" without one. Waits.
    QString hash() const ZEBTDX_EXCLUDES(ZebDeleteLock);

    /// The hash, or null without one. Waits.
    ZebSmartPointer<ZebDataHash> hashPtr() const ZEBTDX_EXCLUDES(ZebDeleteLock);

    /// Whether the block is resident; true for a null reference. Counts as a use of the block.
    /// Waits.
    bool isInMemory() const ZEBTDX_EXCLUDES(ZebDeleteLock);

    /// The value that the host attached to the block's identity, or -1 without a hash. Waits.
    int userId() const ZEBTDX_EXCLUDES(ZebDeleteLock);

    /// Attaches a value to the block's identity, visible through every reference to it. Does
    /// nothing without a hash. Waits.
    void setUserId(int id) const ZEBTDX_EXCLUDES(ZebDeleteLock);

    /// Requests the block before it is needed. Waits for the hash, but not for the block.
    void preload(ZebDataBlockManager::PreloadPriority priority =
                     ZebDataBlockManager::PreloadNormal) const ZEBTDX_EXCLUDES(ZebDeleteLock);

    /// Loads the block if it is not resident, and pins it. The accessor is null if the block cannot
    /// be loaded. Fatal for a null reference: "Null Value of m_DataHash". Waits.
    const ZebConstAccessor constAccessor() const ZEBTDX_EXCLUDES(ZebDeleteLock);

    /// A private copy of the block to write to, with zeros for bytes that the block has not stored
    /// although they count in its size. Null if the block cannot be loaded, and for a null
    /// reference. This reference still refers to the old bytes. Waits. Eviction of the block waits
    /// while its bytes are copied.
    ZebModifyAccessor modifyAccessor() const ZEBTDX_EXCLUDES(ZebDeleteLock);

    /// How many references exist, in any storage.
    static int referenceCount();

    /// How many references exist that were allocated with `new`, nodes of containers included.
    static int allocCount();

    static void* operator new(std::size_t size);
    static void* operator new(std::size_t size, void* place) noexcept;
    static void operator delete(void* memory) noexcept;
    static void operator delete(void* memory, void* place) noexcept;

private:
    friend class ZebDataBlockManager;

    /// Resolves a pending reference: waits for its job, and for the job that this one returns,
    /// until there is a hash. Only tests two pointers if the reference is not pending.
    void checkAndWaitJob() const ZEBTDX_EXCLUDES(ZebDeleteLock);

    /// constAccessor() for a block that is not resident, and for any other that cannot be opened
    /// without a lock.
    const ZebConstAccessor openWithDeletesHeld() const ZEBTDX_EXCLUDES(ZebDeleteLock);

    /// Adds to referenceCount().
    static void addToCount(int change);

    // Mutable, since const operations resolve the reference.
    mutable ZebSmartPointer<ZebDataHash> m_DataHash;
    mutable ZebSmartPointer<ZebBlockFuture> m_HashJob;

    static QAtomicInt m_ReferenceCount;
    static QAtomicInt m_AllocCount;
};

/// A hash of the digest, 0 without one. Waits.
ZEBTDX_EXPORT unsigned int qHash(const ZebDataReference& reference);
