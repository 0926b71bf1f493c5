#include "tools/files/FileWriter.h"

#include "tools/terminal/ToolError.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

FileWriter::FileWriter(const std::string& path, int flags, mode_t mode)
    : m_Path(path),
      m_Descriptor(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | flags, mode))
{
    if (m_Descriptor < 0)
        throw ToolError::ofSystem(errno);
}

FileWriter::~FileWriter()
{
    if (m_Descriptor >= 0)
        ::close(m_Descriptor);
    if (!m_Kept)
        ::unlink(m_Path.c_str());
}

void FileWriter::write(const void* bytes, qint64 size)
{
    const char* next = static_cast<const char*>(bytes);
    while (size > 0) {
        const ssize_t written = ::write(m_Descriptor, next, static_cast<std::size_t>(size));
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            throw ToolError::ofSystem(errno);
        next += written;
        size -= written;
    }
}

void FileWriter::sync()
{
    if (::fsync(m_Descriptor) != 0)
        throw ToolError::ofSystem(errno);
}

void FileWriter::keep()
{
    if (::close(std::exchange(m_Descriptor, -1)) != 0)
        throw ToolError::ofSystem(errno);
    disown();
}
