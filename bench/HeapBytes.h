#pragma once

#include <QtGlobal>

#include <malloc.h>

/// What the process has allocated.
namespace HeapBytes {

/// Bytes, with the overhead of the heap.
inline qint64 inUse()
{
    const struct mallinfo2 info = ::mallinfo2();
    return static_cast<qint64>(info.uordblks) + static_cast<qint64>(info.hblkhd);
}

} // namespace HeapBytes
