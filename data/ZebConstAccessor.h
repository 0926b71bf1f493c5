#pragma once

#include "hash/ZebDataHash.h"
#include "hash/ZebSmartPointer.h"
#include "support/ZebTdxExport.h"

#include <QtGlobal>

class ZebDataBlock;
class ZebDataReference;

/// Pins a block in memory for reading: while an accessor exists, the manager does not evict the
/// block, and its bytes may be read without a lock.
///
/// Check isNull() first: a null accessor has no data(), size() or count().
///
/// Thread safety: any thread may hold accessors to any block. Only one thread at a time may use a
/// given accessor.
///
/// Locks: none while the block is resident. Making, copying and destroying one waits while another
/// thread has a ZebDataDeleteLocker or has locked the hash, or while a direct slot of the store
/// runs. Closing the last accessor takes the delete lock if it clears allFreeBlocksFlushed() or
/// releases the last reference to the hash.
class ZEBTDX_EXPORT ZebConstAccessor
{
public:
    /// Pins the same block once more. Fatal for a null accessor: "Null Block Value in That".
    ZebConstAccessor(const ZebConstAccessor& other);

    /// Unpins the block; it may be evicted once no other accessor pins it. The hash is released
    /// last, outside the delete lock.
    ~ZebConstAccessor();

    /// Kept on purpose: copies block and hash, and changes the count of neither the old nor the new
    /// block. So a host must not assign to an accessor that holds a block.
    ZebConstAccessor& operator=(const ZebConstAccessor& other);

    /// The bytes of the block, at the same address for all its accessors. Valid while one of them
    /// exists.
    const unsigned char* data() const;

    /// The size of the block in bytes.
    qint64 size() const;

    /// How many accessors pin the block right now, through any reference.
    int count() const;

    /// Whether there is no block, because it could not be loaded.
    bool isNull() const;

protected:
    friend class ZebDataBlockManager;
    friend class ZebDataReference;

    /// Pins `block`, a ZebDataBlock, whose hash is `hash`. A null block with a hash makes a null
    /// accessor that holds the hash; fatal if both are null: "Both Block and Pointer Are Null". The
    /// first accessor of a block removes it from the evictable blocks.
    ZebConstAccessor(const ZebSmartPointer<ZebDataHash>& hash, void* block);

private:
    /// Takes over a pin and a reference that ZebDataHash::tryOpen() has counted.
    ZebConstAccessor(ZebDataHash* hash, ZebDataBlock* block) : m_Block(block)
    {
        m_DataHash.adopt(hash);
    }

    ZebDataBlock* m_Block;
    ZebSmartPointer<ZebDataHash> m_DataHash;
};
