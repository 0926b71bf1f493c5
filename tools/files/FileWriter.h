#pragma once

#include <QtGlobal>

#include <string>

#include <sys/types.h>

/// Writes a file, which is removed again unless keep() succeeds. Failures are a ToolError.
class FileWriter
{
public:
    /// Creates the file and opens it for writing, without following a link.
    ///
    /// @param flags O_EXCL to refuse an existing file, O_TRUNC to replace its bytes
    FileWriter(const std::string& path, int flags, mode_t mode);
    ~FileWriter();
    FileWriter(const FileWriter&) = delete;
    FileWriter& operator=(const FileWriter&) = delete;

    void write(const void* bytes, qint64 size);

    /// Waits until the bytes are on the disk.
    void sync();

    /// Closes the file and leaves it in place.
    void keep();

    /// Leaves whatever has this path in place from now on.
    void disown() { m_Kept = true; }

private:
    const std::string m_Path;
    int m_Descriptor;
    bool m_Kept = false;
};
