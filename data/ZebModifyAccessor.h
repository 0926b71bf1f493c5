#pragma once

#include "support/ZebTdxExport.h"

#include <QtGlobal>

class ZebDataBlock;
class ZebDataReference;

/// A private block that a host may write to: a new one, or a copy of an existing one. Blocks in the
/// store are immutable, so changing one means adding another.
///
/// release() adds the block to the store and returns its reference; without it the destructor of
/// the last accessor discards the block.
///
/// Ownership: the copies of an accessor share the ownership of its block. The manager's limits
/// apply to the block from release() on.
///
/// Thread safety: only one thread at a time may use the accessors of a block.
///
/// Locks: only release() takes locks, those of ZebDataBlockManager::addBlock().
class ZEBTDX_EXPORT ZebModifyAccessor
{
public:
    /// How a block is stored.
    enum Caching : int
    {
        /// Identified by the digest of its bytes, stored once, and written to the disk cache.
        Cached = 0,
        /// An uncached block: it has a unique identity, stays resident and is never written to
        /// disk.
        DontCache = 1
    };

    /// Shares the block. The copy of a null accessor is null.
    ZebModifyAccessor(const ZebModifyAccessor& other);

    /// Deletes the block if this was its last accessor.
    ~ZebModifyAccessor();

    /// Kept on purpose: copies the raw pointer and changes no count. So a host must not assign to
    /// an accessor that holds a block.
    ZebModifyAccessor& operator=(const ZebModifyAccessor& other);

    /// The bytes of the block, for writing; null for a null accessor, or if the block cannot be
    /// decompressed.
    unsigned char* data() const;

    /// The size of the block in bytes; 0 for a null accessor.
    qint64 size() const;

    /// How many accessors share the block; 0 for a null accessor.
    int count() const;

    bool isNull() const;

    /// Adds the block to the store and returns its reference. The accessor is null then, and the
    /// bytes must not be written to any more. Returns a null reference for a null accessor. When an
    /// allocation fails, it throws std::bad_alloc, and the bytes are gone.
    ///
    /// Kept on purpose: adds the block even if other accessors share it, and these are not set to
    /// null. Release only an accessor that has no copies.
    ///
    /// @param caching how the block is stored
    /// @param immediate whether the digest is computed before the call returns
    ZebDataReference release(Caching caching = Cached, bool immediate = false);

protected:
    friend class ZebDataReference;
    friend class ZebDataBlockManager;

    /// Takes ownership of `block`, a ZebDataBlock; null makes a null accessor.
    explicit ZebModifyAccessor(void* block);

private:
    ZebDataBlock* m_Block;
};
