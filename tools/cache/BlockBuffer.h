#pragma once

#include <QtGlobal>

#include <cstddef>

/// Memory for the bytes of one block after another. What is above a bound goes back to the system
/// at once, and is not kept by an allocator that hopes for the next block; below the bound the
/// memory is used again, and touched only once.
class BlockBuffer
{
public:
    /// @param keptBytes the bound
    explicit BlockBuffer(qint64 keptBytes);
    ~BlockBuffer();
    BlockBuffer(const BlockBuffer&) = delete;
    BlockBuffer& operator=(const BlockBuffer&) = delete;

    /// Memory of so many bytes, until the next call of either operation. What stands in it is
    /// anything. Throws std::bad_alloc when the system gives none.
    unsigned char* take(qint64 bytes);

    /// Gives memory above the bound back.
    void leave();

private:
    void release();

    const std::size_t m_Kept;
    unsigned char* m_Memory;
    std::size_t m_Size;
};
