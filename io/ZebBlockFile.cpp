#include "io/ZebBlockFile.h"

#include <QtEndian>

#include <cstring>

namespace {

// Fixed, so that equal blocks give equal files in every version and hosts can compare caches.
constexpr int s_CompressionLevel = 2;

} // namespace

std::array<char, ZebBlockFile::s_HeaderBytes> ZebBlockFile::Header::encode() const
{
    static_assert(sizeof m_BlockBytes == s_BlockSizeBytes);
    static_assert(sizeof m_PayloadBytes == s_PayloadSizeBytes);
    std::array<char, s_HeaderBytes> bytes = {};
    std::memcpy(bytes.data(), &m_BlockBytes, s_BlockSizeBytes);
    std::memcpy(bytes.data() + s_BlockSizeBytes, &m_PayloadBytes, s_PayloadSizeBytes);
    return bytes;
}

ZebBlockFile::Header ZebBlockFile::Header::decode(const char* bytes)
{
    Header header;
    std::memcpy(&header.m_BlockBytes, bytes, s_BlockSizeBytes);
    std::memcpy(&header.m_PayloadBytes, bytes + s_BlockSizeBytes, s_PayloadSizeBytes);
    return header;
}

bool ZebBlockFile::Header::isPayloadWithin(qint64 available) const
{
    return m_PayloadBytes >= 0 && m_PayloadBytes <= available;
}

bool ZebBlockFile::isComplete(qint64 fileBytes)
{
    return fileBytes > s_HeaderBytes;
}

ZebCompression::Result ZebBlockFile::encodePayload(const QByteArray& plain, QByteArray* payload)
{
    return ZebCompression::compress(plain, s_CompressionLevel, payload);
}

QByteArray ZebBlockFile::encodePayload(const QByteArray& plain)
{
    QByteArray payload;
    encodePayload(plain, &payload);
    return payload;
}

QByteArray ZebBlockFile::decodePayload(const QByteArray& payload)
{
    return ZebDecompression::decompress(payload);
}

qint64 ZebBlockFile::plainSizeOf(const char* payload)
{
    return qFromBigEndian<quint32>(payload);
}
