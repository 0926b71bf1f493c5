#pragma once

#include "hash/ZebDataHash.h"
#include "hash/ZebSmartPointer.h"
#include "support/ZebTdxExport.h"

#include <QtGlobal>

class ZebDataBlock;
class ZebDataReference;

/// The proof that a block is in memory: while one exists, the manager does not evict the block,
/// and its bytes may be read with no lock.
///
/// Test isNull() first: data(), size() and count() of a null accessor are the caller's error.
///
/// Thread safety: any thread may hold accessors of any block; one accessor belongs to one thread at
/// a time.
///
/// Locks: making, copying and destroying one takes the delete lock and inside it the block's mutex.
class ZEBTDX_EXPORT ZebConstAccessor
{
public:
    /// Holds the same block once more. Fatal for a null accessor: "Null Block Value in That".
    ZebConstAccessor(const ZebConstAccessor& other);

    /// Lets the block go; it may be evicted again when nobody else holds it. The hash is released
    /// last, outside the delete lock.
    ~ZebConstAccessor();

    /// Kept on purpose: takes over block and hash, and moves no count, neither of the old block nor
    /// of the new one. A host must not assign accessors over live ones.
    ZebConstAccessor& operator=(const ZebConstAccessor& other);

    /// The block's bytes, the same address for every accessor of one block. Valid while an accessor
    /// of the block exists.
    const unsigned char* data() const;

    /// The block's size in bytes.
    qint64 size() const;

    /// How many accessors hold the block at this moment, of whatever reference.
    int count() const;

    /// Whether there is no block: it could not be had.
    bool isNull() const;

protected:
    friend class ZebDataBlockManager;
    friend class ZebDataReference;

    /// Holds `block`, a ZebDataBlock, whose hash is `hash`. A null block with a hash gives a null
    /// accessor that keeps the hash; fatal when both are null: "Both Block and Pointer Are Null".
    /// The first accessor of a block takes it out of the evictable set.
    ZebConstAccessor(const ZebSmartPointer<ZebDataHash>& hash, void* block);

private:
    ZebDataBlock* m_Block;
    ZebSmartPointer<ZebDataHash> m_DataHash;
};
