#pragma once

// Internal: decompression of blocks. Not installed.

#include <QByteArray>

/// Decompression of what qCompress() makes: the length of the plain bytes in 4 bytes, big-endian,
/// then a zlib stream.
///
/// Thread safety: every function uses its arguments only.
namespace ZebDecompression {

/// The upper bound of zlib's expansion: plain bytes for each compressed byte.
constexpr qint64 s_MaxExpansion = 1040;

/// The plain bytes of a payload. Returns and logs what qUncompress() does, with these differences:
///
///  - The length in front is not trusted: memory for the result is bounded by what the payload can
///    expand to, and the result has no more than it needs.
///  - Throws std::bad_alloc when memory is short, where qUncompress() returns no bytes. So an empty
///    result always means an empty block or a damaged payload.
QByteArray decompress(const QByteArray& payload);

} // namespace ZebDecompression
