#pragma once

// Internal: the bytes of a group block. Not installed.
//
// A group block is a list of digests, little-endian throughout:
//
//   offset  bytes           what
//        0      8           magic, 1337
//        8      4           length of a digest in bytes, signed: 64 for blocks, 0 in an empty group
//       12      4           number of digests, signed
//       16  number×length   the digests, in the order of the list, duplicates included
//
// The magic is the only mark of a group. A length or a number below 1 means no digests. A group
// that names more digests than it holds is read to its last whole digest.

#include <QtGlobal>

#include <array>
#include <optional>

/// The header of a group block.
///
/// Thread safety: every function uses its arguments only.
struct ZebGroupHeader
{
    static constexpr int s_Bytes = 16;

    qint32 m_DigestBytes = 0;
    qint32 m_Digests = 0;

    std::array<unsigned char, s_Bytes> encode() const;

    /// The header of a block of `size` bytes, with the number of digests bounded by the bytes that
    /// are there. Empty for null and for a block that is no group.
    /// Kept on purpose: any block that begins with the magic is taken for a group.
    static std::optional<ZebGroupHeader> decode(const unsigned char* bytes, qint64 size);
};
