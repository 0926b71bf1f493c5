#pragma once

// Internal: compression of blocks. Not installed.

#include <QByteArray>

/// Compression in the form of qCompress(), for blocks of every size: the length of the plain bytes
/// in 4 bytes, big-endian, then a zlib stream.
///
/// Thread safety: every function uses its arguments only. All may throw std::bad_alloc, and then
/// leave `payload` as it was.
namespace ZebCompression {

enum class Result
{
    Made,
    /// zlib could not allocate.
    OutOfMemory,
    /// The payload would not fit a QByteArray, which holds less than 2 GiB.
    TooLarge
};

/// Largest block for which compress() uses qCompress(). That computes the size of its buffer in 32
/// bits: from 2126221393 bytes on it would throw or write past the buffer.
constexpr qint64 s_MaxQtBytes = 2000000000;

/// Largest payload in bytes: what a QByteArray holds next to its own header.
constexpr qint64 s_MaxPayloadBytes = 0x7FFFFFFF - 32;

/// Compresses `plain` at `level`, 0 to 9, or -1 for zlib's default. On a failure that is returned,
/// `payload` is empty.
Result compress(const QByteArray& plain, int level, QByteArray* payload);

/// The same with zlib alone, and with a payload of at most `maxBytes`. Gives the same bytes as
/// qCompress() with the same zlib. `plain` must not be empty.
Result compressDirectly(const QByteArray& plain, int level, qint64 maxBytes, QByteArray* payload);

} // namespace ZebCompression
