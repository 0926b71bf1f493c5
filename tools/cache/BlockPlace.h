#pragma once

class BlockName;

/// Where a store keeps the file of a block. It follows from the name alone, so a file that lies
/// anywhere else is never found.
struct BlockPlace
{
    /// Index of the root. -1 when the name leads to none: no store can write such a block.
    int m_Root = -1;
    int m_Bucket = 0;

    /// @param roots how many roots the store has, at least 1
    /// @param buckets how many buckets below each, at least 1
    static BlockPlace of(const BlockName& name, int roots, int buckets);
};
