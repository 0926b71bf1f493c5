#pragma once

// Internal: the format of a block file, for all code that writes, reads or checks one. Not
// installed.
//
// A block file contains one block. Its name and its directory follow from the digest of the block's
// bytes as they were added (hash/ZebHashText.h, io/ZebBlockPlace.h). Its bytes:
//
//   offset  bytes  what
//        0      8  size of the plain block in bytes, signed
//        8      4  N, the length of the payload in bytes, signed
//       12      N  the payload as qCompress() makes it at level 2: the size of the plain block in
//                  4 bytes, big-endian, then a zlib stream
//
// Size and N are in the byte order of the machine. There is no magic number, version or
// checksum: only the name can verify the bytes.
//
//  - Only a regular file is a block file. Anything else under its name, such as a folder or a link,
//    counts as missing; the writer neither follows, replaces nor removes it.
//  - The writer replaces a file of 12 bytes or less, and treats any longer file as complete,
//    whatever it contains.
//  - The reader reads N = 0 as an empty block, even in a file of 12 bytes.
//  - A file whose N is negative or exceeds the rest of the file is unreadable. The reader
//    allocates nothing for it.
//  - The reader ignores bytes after the payload.
//  - The reader does not compare the size with the decompressed bytes, and reads a payload that
//    does not decompress as an empty block.
//  - A block that the host compressed before adding it keeps its payload and level, and is named by
//    the digest of the compressed bytes.

#include "support/ZebCompression.h"
#include "support/ZebDecompression.h"

#include <QByteArray>

#include <array>

/// Thread safety: every function uses its arguments only.
namespace ZebBlockFile {

/// The two fields of the header, and the offset of the payload.
constexpr int s_BlockSizeBytes = 8;
constexpr int s_PayloadSizeBytes = 4;
constexpr int s_HeaderBytes = s_BlockSizeBytes + s_PayloadSizeBytes;

/// The part of the payload before the zlib stream: the size of the plain block.
constexpr int s_PlainSizeBytes = 4;

/// The largest block in bytes, 2 GiB less one: the limit that ZebDataBlock::maxBlockSize() names.
constexpr qint64 s_MaxBlockBytes = 0x7FFFFFFF;

/// The upper bound of zlib's expansion: plain bytes for each compressed byte.
constexpr qint64 s_MaxExpansion = ZebDecompression::s_MaxExpansion;

/// The first twelve bytes of a block file.
struct Header
{
    /// The size of the plain block in bytes.
    qint64 m_BlockBytes = 0;
    /// N, the length of the payload in bytes.
    qint32 m_PayloadBytes = 0;

    std::array<char, s_HeaderBytes> encode() const;

    /// @param bytes at least s_HeaderBytes of them
    static Header decode(const char* bytes);

    /// Whether the payload fits the `available` bytes after the header. The file is unreadable
    /// otherwise.
    bool isPayloadWithin(qint64 available) const;
};

/// Whether a file of this size counts as complete; a writer replaces any other.
bool isComplete(qint64 fileBytes);

/// Makes the payload for these bytes. It stays empty on a failure.
ZebCompression::Result encodePayload(const QByteArray& plain, QByteArray* payload);

/// The payload for these bytes. Empty when it cannot be made.
QByteArray encodePayload(const QByteArray& plain);

/// The plain bytes of a payload. Empty when it does not decompress; Qt then logs a line. Throws
/// std::bad_alloc when memory is short.
QByteArray decodePayload(const QByteArray& payload);

/// The size of the plain block according to the payload.
///
/// @param payload at least s_PlainSizeBytes
qint64 plainSizeOf(const char* payload);

} // namespace ZebBlockFile
