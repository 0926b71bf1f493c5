#pragma once

#include "data/ZebDataBlock.h"
#include "support/PrivateAccess.h"

#include <QAtomicInt>
#include <QByteArray>

#include <atomic>

ZEBTDX_ACCESS(BlockInsideAccessCount, ZebDataBlock, QAtomicInt ZebDataBlock::*, m_AccessCount)
ZEBTDX_ACCESS(BlockInsideCached, ZebDataBlock, std::atomic<bool> ZebDataBlock::*, m_Cached)
ZEBTDX_ACCESS(BlockInsideCompressed, ZebDataBlock, bool ZebDataBlock::*, m_Compressed)
ZEBTDX_ACCESS(BlockInsideStoredBytes, ZebDataBlock, QByteArray ZebDataBlock::*, m_Data)
ZEBTDX_ACCESS(BlockInsideSize, ZebDataBlock, qint64 ZebDataBlock::*, m_Size)

/// The private members of ZebDataBlock.
namespace BlockInside {

inline QAtomicInt& accessCount(ZebDataBlock& object)
{
    return object.*privateMember(BlockInsideAccessCount());
}

/// Whether a complete file of the block is known to exist.
inline std::atomic<bool>& cached(ZebDataBlock& object)
{
    return object.*privateMember(BlockInsideCached());
}

inline bool& compressed(ZebDataBlock& object)
{
    return object.*privateMember(BlockInsideCompressed());
}

/// The bytes as they are stored, which may be compressed.
inline QByteArray& storedBytes(ZebDataBlock& object)
{
    return object.*privateMember(BlockInsideStoredBytes());
}

/// The size of the plain block in bytes.
inline qint64& size(ZebDataBlock& object)
{
    return object.*privateMember(BlockInsideSize());
}

} // namespace BlockInside
