#pragma once

// Internal: bounded decompression. Not installed.

#include <QtGlobal>

#include <string>

#include <zlib.h>

/// Decompresses a zlib stream piece by piece into memory of a fixed size. Whatever the stream,
/// writes no byte beyond that memory and allocates nothing per stream.
///
/// Thread safety: an object belongs to one thread at a time.
class ZebBlockInflater
{
public:
    enum class State
    {
        /// The stream continues in the next piece.
        Hungry,
        /// The stream has ended, and its own checksum is right.
        Ended,
        /// The memory is full, and the stream continues.
        Full,
        /// This is not a zlib stream, or a damaged one.
        Broken
    };

    /// Throws std::bad_alloc when zlib cannot allocate.
    ZebBlockInflater();
    ~ZebBlockInflater();
    ZebBlockInflater(const ZebBlockInflater&) = delete;
    ZebBlockInflater& operator=(const ZebBlockInflater&) = delete;

    /// Starts a new stream.
    ///
    /// @param out valid until the last feed()
    void begin(unsigned char* out, qint64 outBytes);

    /// Takes the next piece of the stream. Must not be called again after any result but Hungry,
    /// until the next begin() or resume().
    State feed(const char* bytes, qint64 size);

    /// Continues a stream that is Full in other memory, with the rest of its last piece.
    State resume(unsigned char* out, qint64 outBytes);

    /// Decompressed bytes so far.
    qint64 produced() const;

    /// Bytes of the last piece that come after the stream.
    qint64 unused() const { return m_Stream.avail_in; }

    /// What is wrong with a broken stream; not empty.
    std::string reason() const;

private:
    State inflate();

    z_stream m_Stream;
};
