#pragma once

#include <QByteArray>
#include <QtGlobal>

#include <string>

/// What tells one state of a file from another without a look at its content.
struct FileStamp
{
    quint64 m_Device = 0;
    quint64 m_Node = 0;
    qint64 m_Size = 0;
    qint64 m_ModifiedSeconds = 0;
    qint64 m_ModifiedNanoseconds = 0;
    /// Kind and permissions, which are not compared.
    unsigned int m_Mode = 0;

    bool operator==(const FileStamp& other) const;
    bool operator!=(const FileStamp& other) const { return !(*this == other); }
};

/// Reads a regular file at any place, a block at a time. The path is taken as the bytes that it is.
///
/// Operations that can fail give the reason as a text that is empty when all went well.
///
/// Thread safety: an object belongs to one thread at a time.
class FileReader
{
public:
    FileReader();
    ~FileReader();
    FileReader(const FileReader&) = delete;
    FileReader& operator=(const FileReader&) = delete;

    /// Whether a symbolic link is followed to its file.
    enum class Links
    {
        Follow,
        Refuse
    };

    /// Opens the file for reading, and closes the one before. Refuses all but regular files, and
    /// does not wait at a pipe.
    [[nodiscard]] std::string open(const std::string& path, Links links = Links::Follow);

    /// The state of the file when it was opened.
    const FileStamp& stamp() const { return m_Stamp; }

    /// Whether the open file has another state by now, or cannot tell.
    bool hasChanged() const;

    /// Reads `size` bytes at `offset` into `block`; fewer only where the file ends, none beyond its
    /// end. Memory is taken for what the file has, not for what is asked.
    [[nodiscard]] std::string readBlock(qint64 offset, qint64 size, QByteArray& block);

private:
    void close();

    int m_Descriptor;
    FileStamp m_Stamp;
};
