#include "tools/files/FileWriter.h"

#include "tools/files/FileSystem.h"
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
    FileSystem::write(m_Descriptor, bytes, size);
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
