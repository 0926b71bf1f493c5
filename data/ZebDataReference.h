#pragma once

#include "data/ZebBlockFuture.h"
#include "data/ZebConstAccessor.h"
#include "data/ZebModifyAccessor.h"
#include "hash/ZebDataHash.h"
#include "hash/ZebSmartPointer.h"
#include "manager/ZebDataBlockManager.h"
#include "support/ZebTdxExport.h"

#include <QAtomicInt>
#include <QString>

#include <cstddef>

/// What a host keeps of a block: a cheap value that may be copied freely.
///
/// It is null, pending (its block is still being hashed) or resolved (its hash is known). The first
/// operation that needs the hash waits for the job and resolves the reference; those operations say
/// "waits". A reference pins nothing: its block may be on disk only. It owns its hash, never the
/// block, and so outlives the manager's clean-up.
///
/// Thread safety: a value. Each thread works on its own copy; one object must not be used by two
/// threads at once, not even through its const operations, since those may resolve it. Copies of
/// one pending reference resolve apart.
///
/// Locks: those of the operations that it calls; none of its own. No operation that waits may be
/// called with the delete lock held.
class ZEBTDX_EXPORT ZebDataReference
{
public:
    /// Null.
    ZebDataReference();

    /// The same block. A pending reference stays pending; does not wait.
    ZebDataReference(const ZebDataReference& other);

    /// Resolved, or null for a null hash.
    ZebDataReference(const ZebSmartPointer<ZebDataHash>& hash);

    /// Pending, or null for a null job.
    ZebDataReference(const ZebSmartPointer<ZebBlockFuture>& job);

    /// Dropping a pending reference may wait until its job has ended.
    ~ZebDataReference();

    ZebDataReference& operator=(const ZebDataReference& other);

    /// Drops the hash at once and takes the job: the reference is pending.
    ZebDataReference& operator=(const ZebSmartPointer<ZebBlockFuture>& job);

    /// Equal hash and equal job, as objects. Does not wait, so a pending reference never equals a
    /// resolved one; resolved references of equal content are equal.
    bool operator==(const ZebDataReference& other) const;
    bool operator!=(const ZebDataReference& other) const;

    /// Exchanges both. Does not wait.
    void swap(ZebDataReference& other);

    /// Whether there is neither hash nor job. Does not wait.
    bool isNull() const;

    /// Whether the reference is pending. Does not wait.
    bool hasHashJob() const;

    /// Waits until the reference is resolved. Fatal when the job ends without a hash: "Null Value
    /// for m_DataHash"; so do all operations that wait.
    void resolveWork() const;

    /// The text form of the hash, or "NULL" when there is none. Waits.
    QString hash() const;

    /// The hash, null when there is none. Waits.
    ZebSmartPointer<ZebDataHash> hashPtr() const;

    /// Whether the block is in memory. Asking counts as using it. True for a null reference. Waits.
    bool isInMemory() const;

    /// The value that the host attached to this content, or -1 when there is no hash. Waits.
    int userId() const;

    /// Attaches a value to this content, seen through every reference to it. Nothing happens when
    /// there is no hash. Waits.
    void setUserId(int id) const;

    /// Asks for the block ahead of need. Waits for the hash, not for the block.
    void preload(
        ZebDataBlockManager::PreloadPriority priority = ZebDataBlockManager::PreloadNormal) const;

    /// Brings the block into memory if need be and holds it there. The accessor is null when the
    /// block cannot be had. Fatal for a null reference: "Null Value of m_DataHash". Waits.
    const ZebConstAccessor constAccessor() const;

    /// A private copy of the block to write into; null when the block cannot be had, and for a null
    /// reference. This reference does not change. Waits. Holds the delete lock while it copies.
    ZebModifyAccessor modifyAccessor() const;

    /// How many references exist, wherever they lie.
    static int referenceCount();

    /// How many references exist that were made by `new`, containers' nodes among them.
    static int allocCount();

    static void* operator new(std::size_t size);
    static void* operator new(std::size_t size, void* place) noexcept;
    static void operator delete(void* memory) noexcept;
    static void operator delete(void* memory, void* place) noexcept;

private:
    friend class ZebDataBlockManager;

    /// Resolves a pending reference: waits for its job, and for the job that this one yields, until
    /// there is a hash. A pointer test on a reference that is not pending.
    void checkAndWaitJob() const;

    // Resolving happens behind const operations.
    mutable ZebSmartPointer<ZebDataHash> m_DataHash;
    mutable ZebSmartPointer<ZebBlockFuture> m_HashJob;

    static QAtomicInt m_ReferenceCount;
    static QAtomicInt m_AllocCount;
};

/// A hash of the content, 0 when there is none. Waits.
ZEBTDX_EXPORT unsigned int qHash(const ZebDataReference& reference);
