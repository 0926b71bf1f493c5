#pragma once

// Internal: the bytes of a block file, for every part that writes, reads or checks one. Not
// installed.
//
// A block file holds one block. Its name and its directory follow from the digest of the block's
// bytes (hash/ZebHashText.h, io/ZebBlockPlace.h). Its bytes:
//
//   offset  bytes  what
//        0      8  size of the plain block in bytes, signed
//        8      4  N, the length of the payload in bytes, signed
//       12      N  the payload as qCompress() makes it at level 2: the size of the plain block in
//                  4 bytes, big-endian, then a zlib stream
//
// Size and N are in the byte order of the machine. There is no magic number, no version and no
// checksum: the name is the only check of what comes out.
//
//  - A file of 12 bytes or less is incomplete. The writer replaces it, and takes any longer file
//    for the whole block, whatever it holds.
//  - N = 0 makes an empty block, also in a file of 12 bytes.
//  - N below 0, or above what the file still holds, makes the file unreadable. Nothing is
//    allocated for it.
//  - The reader never looks at bytes after the payload.
//  - The reader does not compare the size with what comes out, and takes a payload that does not
//    decompress for an empty block.
//  - The payload of a block that the host has compressed itself has the level of the host's choice.

#include <QByteArray>

#include <array>

/// Thread safety: every function uses its arguments only.
namespace ZebBlockFile {

/// The two fields of the header, and where the payload begins.
constexpr int s_BlockSizeBytes = 8;
constexpr int s_PayloadSizeBytes = 4;
constexpr int s_HeaderBytes = s_BlockSizeBytes + s_PayloadSizeBytes;

/// The bytes in front of the zlib stream, inside the payload: the size of the plain block.
constexpr int s_PlainSizeBytes = 4;

/// The largest block, in bytes: what a QByteArray holds.
constexpr qint64 s_MaxBlockBytes = 0x7FFFFFFF;

/// No zlib stream decompresses to more than this many times its bytes.
constexpr qint64 s_MaxExpansion = 1040;

/// The twelve bytes that a block file begins with.
struct Header
{
    /// The size of the plain block in bytes.
    qint64 m_BlockBytes = 0;
    /// N, the length of the payload in bytes.
    qint32 m_PayloadBytes = 0;

    std::array<char, s_HeaderBytes> encode() const;

    /// @param bytes at least s_HeaderBytes of them
    static Header decode(const char* bytes);

    /// Whether the payload lies within the `available` bytes after the header. False means that the
    /// file is unreadable.
    bool isPayloadWithin(qint64 available) const;
};

/// Whether a writer takes a file of this size for the whole block and leaves it alone.
bool isComplete(qint64 fileBytes);

/// The payload for these bytes. Empty when zlib has no memory.
QByteArray encodePayload(const QByteArray& plain);

/// The plain bytes of a payload; empty, with a line of Qt's own, when it does not decompress.
QByteArray decodePayload(const QByteArray& payload);

/// The size that the payload itself names for the plain block.
///
/// @param payload at least s_PlainSizeBytes
qint64 plainSizeOf(const char* payload);

} // namespace ZebBlockFile
