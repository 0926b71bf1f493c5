#pragma once

#include "support/ZebTdxExport.h"

#include <QtGlobal>

class ZebDataBlock;
class ZebDataReference;

/// A private block that a host may write into: a new one, or a copy of an existing one. Blocks are
/// immutable once they are in the store, so changing one means making another.
///
/// It ends in release(), which turns the block into a reference, or in its destructor, which throws
/// the work away.
///
/// Ownership: the copies of an accessor own its block together. The manager's limits do not apply
/// to the block until it is released.
///
/// Thread safety: an accessor and its block belong to one thread at a time.
///
/// Locks: takes the block's mutex; release() takes what adding a block takes.
class ZEBTDX_EXPORT ZebModifyAccessor
{
public:
    /// What becomes of a block that is added.
    enum Caching : int
    {
        /// Identified by the hash of its bytes, stored once, and written to the disk cache.
        Cached = 0,
        /// An identity of its own; stays in memory and is never evicted.
        DontCache = 1
    };

    /// Shares the block. A null accessor stays null.
    ZebModifyAccessor(const ZebModifyAccessor& other);

    /// Deletes the block when no other accessor of it is left.
    ~ZebModifyAccessor();

    /// Kept on purpose: takes over the raw pointer, and moves no count. A host must not assign over
    /// a live accessor.
    ZebModifyAccessor& operator=(const ZebModifyAccessor& other);

    /// The address to write through; null for a null accessor or when the block cannot be
    /// decompressed.
    unsigned char* data() const;

    /// The block's size in bytes; 0 for a null accessor.
    qint64 size() const;

    /// How many accessors share the block; 0 for a null accessor.
    int count() const;

    bool isNull() const;

    /// Hands the block to the store and gives its reference; the accessor is null from then on,
    /// and the bytes must not be written any more. A null accessor gives a null reference.
    ///
    /// Kept on purpose: the block passes on whatever the count says, and copies of this accessor
    /// are not told. Release the only copy.
    ///
    /// @param caching what becomes of the block
    /// @param immediate whether the digest is computed before the call returns
    ZebDataReference release(Caching caching = Cached, bool immediate = false);

protected:
    friend class ZebDataReference;
    friend class ZebDataBlockManager;

    /// Takes the ownership of `block`, a ZebDataBlock; null gives a null accessor.
    explicit ZebModifyAccessor(void* block);

private:
    ZebDataBlock* m_Block;
};
