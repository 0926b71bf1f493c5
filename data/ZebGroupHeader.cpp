#include "data/ZebGroupHeader.h"

#include <QtEndian>

#include <algorithm>

namespace {

constexpr quint64 s_Magic = 1337;
constexpr int s_DigestBytesOffset = 8;
constexpr int s_DigestsOffset = 12;

} // namespace

std::array<unsigned char, ZebGroupHeader::s_Bytes> ZebGroupHeader::encode() const
{
    std::array<unsigned char, s_Bytes> bytes = {};
    qToLittleEndian<quint64>(s_Magic, bytes.data());
    qToLittleEndian<qint32>(m_DigestBytes, bytes.data() + s_DigestBytesOffset);
    qToLittleEndian<qint32>(m_Digests, bytes.data() + s_DigestsOffset);
    return bytes;
}

std::optional<ZebGroupHeader> ZebGroupHeader::decode(const unsigned char* bytes, qint64 size)
{
    if (bytes == nullptr || size < s_Bytes || qFromLittleEndian<quint64>(bytes) != s_Magic)
        return std::nullopt;
    ZebGroupHeader header;
    header.m_DigestBytes = qFromLittleEndian<qint32>(bytes + s_DigestBytesOffset);
    header.m_Digests = qFromLittleEndian<qint32>(bytes + s_DigestsOffset);
    if (header.m_DigestBytes < 1 || header.m_Digests < 1)
        return ZebGroupHeader();
    header.m_Digests = static_cast<qint32>(
        std::min<qint64>(header.m_Digests, (size - s_Bytes) / header.m_DigestBytes));
    return header;
}
