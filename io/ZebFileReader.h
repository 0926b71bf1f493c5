#pragma once

// Internal: reads files that the store did not write. Not installed.

#include <QByteArray>
#include <QtGlobal>

#include <string>

/// Distinguishes two states of a file without looking at its bytes.
struct ZebFileStamp
{
    quint64 m_Device = 0;
    quint64 m_Inode = 0;
    qint64 m_Size = 0;
    qint64 m_ModifiedSeconds = 0;
    qint64 m_ModifiedNanoseconds = 0;
    /// Type and permissions; not compared.
    unsigned int m_Mode = 0;

    bool operator==(const ZebFileStamp& other) const;
    bool operator!=(const ZebFileStamp& other) const { return !(*this == other); }
};

/// Reads a regular file at any offset, a block at a time. Paths are bytes and never decoded.
///
/// Operations that can fail return the system's error number, 0 for success.
///
/// Thread safety: an object belongs to one thread at a time.
class ZebFileReader
{
public:
    /// Whether open() follows a symbolic link.
    enum class Links
    {
        Follow,
        Refuse
    };

    /// open() returns this for a directory, pipe, socket or device; stamp() has its type.
    static constexpr int s_NotRegular = -1;

    ZebFileReader();
    ~ZebFileReader();
    ZebFileReader(const ZebFileReader&) = delete;
    ZebFileReader& operator=(const ZebFileReader&) = delete;

    /// Opens the file for reading and closes the previous one. Never blocks, not even on a pipe.
    [[nodiscard]] int open(const std::string& path, Links links = Links::Follow);

    /// The state of the file when it was opened.
    const ZebFileStamp& stamp() const { return m_Stamp; }

    /// Whether the open file has another state by now, or its state cannot be read.
    bool hasChanged() const;

    /// Reads `size` bytes at `offset` into `block`; fewer only at the end of the file. Allocates
    /// for what the file holds, not for what is asked.
    [[nodiscard]] int readBlock(qint64 offset, qint64 size, QByteArray& block);

private:
    void close();

    int m_Descriptor;
    ZebFileStamp m_Stamp;
};
