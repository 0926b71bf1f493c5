#pragma once

#include <QtGlobal>

#include <string>

#include <zlib.h>

/// Decompresses a zlib stream piece by piece into memory of a size known before. However the stream
/// was made, it writes no byte beyond that, and takes no further memory of its own.
///
/// Thread safety: an object belongs to one thread at a time.
class BlockInflater
{
public:
    enum class State
    {
        /// The stream goes on in the next piece.
        Hungry,
        /// The stream has come to its end, and its own checksum is right.
        Ended,
        /// All memory is full, and the stream goes on.
        Full,
        /// It is no zlib stream, or a damaged one.
        Broken
    };

    /// Throws std::bad_alloc when zlib gets no memory.
    BlockInflater();
    ~BlockInflater();
    BlockInflater(const BlockInflater&) = delete;
    BlockInflater& operator=(const BlockInflater&) = delete;

    /// Starts a new stream.
    ///
    /// @param out lives until the last feed()
    void begin(unsigned char* out, qint64 outBytes);

    /// Takes the next piece of the stream. Must not be called again once a call gave anything but
    /// Hungry.
    State feed(const char* bytes, qint64 size);

    /// How many bytes have come out.
    qint64 produced() const;

    /// How many bytes of the last piece were not needed.
    qint64 unused() const { return m_Stream.avail_in; }

    /// What is wrong with a broken stream; not empty.
    std::string reason() const;

private:
    z_stream m_Stream;
};
