#include "tools/cache/BlockBuffer.h"

#include <algorithm>
#include <new>

#include <sys/mman.h>

BlockBuffer::BlockBuffer(qint64 keptBytes)
    : m_Kept(static_cast<std::size_t>(keptBytes)), m_Memory(nullptr), m_Size(0)
{}

BlockBuffer::~BlockBuffer()
{
    release();
}

unsigned char* BlockBuffer::take(qint64 bytes)
{
    const std::size_t size = std::max<std::size_t>(static_cast<std::size_t>(bytes), 1);
    if (size <= m_Size)
        return m_Memory;
    release();
    const std::size_t wanted = std::max(size, m_Kept);
    void* const memory =
        ::mmap(nullptr, wanted, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw std::bad_alloc();
    m_Memory = static_cast<unsigned char*>(memory);
    m_Size = wanted;
    return m_Memory;
}

void BlockBuffer::leave()
{
    if (m_Size > m_Kept)
        release();
}

void BlockBuffer::release()
{
    if (m_Memory != nullptr)
        ::munmap(m_Memory, m_Size);
    m_Memory = nullptr;
    m_Size = 0;
}
