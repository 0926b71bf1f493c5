#include "data/ZebDataBlock.h"

#include "manager/ZebDataBlockManager.h"
#include "support/ZebCompression.h"
#include "support/ZebDecompression.h"
#include "support/ZebTdxMessage.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace {

// The length of the array for a payload of `size` bytes: its low 32 bits, since arrays cannot be
// longer, and 0 if these are negative.
// Kept on purpose: the size of the block is not truncated with it.
int arrayLength(qint64 size)
{
    return std::max(0, static_cast<int>(static_cast<quint32>(static_cast<quint64>(size))));
}

// A copy with its own storage.
QByteArray detached(const QByteArray& bytes)
{
    QByteArray copy(bytes);
    copy.detach();
    return copy;
}

} // namespace

ZebDataBlock::ZebDataBlock(const ZebDataBlock& other)
    : m_AccessCount(0),
      m_Data(detached(other.m_Data)),
      m_Size(other.m_Size),
      m_Compressed(other.m_Compressed),
      m_Cached(false)
{}

ZebDataBlock::ZebDataBlock(const QByteArray& bytes)
    : m_AccessCount(0),
      m_Data(detached(bytes)),
      m_Size(bytes.size()),
      m_Compressed(false),
      m_Cached(false)
{}

ZebDataBlock::ZebDataBlock(const unsigned char* data, qint64 size)
    : m_AccessCount(0),
      m_Data(reinterpret_cast<const char*>(data), arrayLength(size)),
      m_Size(size),
      m_Compressed(false),
      m_Cached(false)
{}

ZebDataBlock::ZebDataBlock(qint64 size, unsigned char fill)
    : m_AccessCount(0),
      m_Data(arrayLength(size), static_cast<char>(fill)),
      m_Size(size),
      m_Compressed(false),
      m_Cached(false)
{}

ZebDataBlock::~ZebDataBlock() = default;

std::unique_ptr<ZebDataBlock> ZebDataBlock::privateCopy(const ZebDataBlock& block)
{
    auto copy = std::make_unique<ZebDataBlock>(block.size(), 0);
    const int stored = std::min(block.m_Data.size(), copy->m_Data.size());
    std::memcpy(copy->m_Data.data(), block.m_Data.constData(), static_cast<size_t>(stored));
    return copy;
}

ZebDataBlock& ZebDataBlock::operator=(const ZebDataBlock& other)
{
    if (this == &other)
        return *this;
    m_Data = detached(other.m_Data);
    m_Compressed = other.m_Compressed;
    m_Size = other.m_Size;
    return *this;
}

bool ZebDataBlock::operator==(const ZebDataBlock& other) const
{
    return m_Data.size() == other.m_Data.size() &&
           std::memcmp(m_Data.constData(), other.m_Data.constData(),
                       static_cast<size_t>(m_Data.size())) == 0;
}

bool ZebDataBlock::operator!=(const ZebDataBlock& other) const
{
    return !(*this == other);
}

const unsigned char* ZebDataBlock::constData() const
{
    return reinterpret_cast<const unsigned char*>(m_Data.constData());
}

unsigned char* ZebDataBlock::data()
{
    if (m_Compressed && !uncompress())
        return nullptr;
    return reinterpret_cast<unsigned char*>(m_Data.data());
}

qint64 ZebDataBlock::size() const
{
    return m_Size;
}

ZebSmartPointer<ZebDataHash> ZebDataBlock::hash() const
{
    return ZebSmartPointer<ZebDataHash>(new ZebDataHash(m_Data, ZebDataHash::Hash512));
}

bool ZebDataBlock::cached() const
{
    return m_Cached.load(std::memory_order_relaxed);
}

bool ZebDataBlock::isCompressed() const
{
    return m_Compressed;
}

bool ZebDataBlock::compress(int level)
{
    if (m_Compressed)
        return true;
    // Kept on purpose: no copy is kept, so a failure loses the bytes. The peak memory is that of
    // the uncompressed and the compressed bytes.
    QByteArray payload;
    ZebCompression::compress(m_Data, level, &payload);
    m_Data = payload;
    if (m_Data.isEmpty()) {
        ZebTdxMessage::debug(QStringLiteral("Failed to compress data block."));
        return false;
    }
    m_Compressed = true;
    return true;
}

bool ZebDataBlock::uncompress()
{
    if (!m_Compressed)
        return true;
    QByteArray plain;
    try {
        plain = ZebDecompression::decompress(m_Data);
    } catch (const std::bad_alloc&) {
        // As for a damaged payload, the stored bytes stay.
    }
    if (plain.isEmpty()) {
        ZebTdxMessage::debug(QStringLiteral("Failed to decompress data block."));
        return false;
    }
    m_Data.swap(plain);
    m_Compressed = false;
    return true;
}

qint64 ZebDataBlock::maxBlockSize()
{
    constexpr qint64 arrayLimit = 0x7FFFFFFF;
    return std::min(ZebDataBlockManager::instance().maxDataCacheSize(), arrayLimit);
}

int ZebDataBlock::blockCount()
{
    return -1;
}
