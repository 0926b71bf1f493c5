#include "tools/files/PartFile.h"

#include "tools/files/FileSystem.h"
#include "tools/files/OpenDirectory.h"
#include "tools/terminal/ToolError.h"

#include <QByteArray>
#include <QCryptographicHash>

#include <cerrno>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const char* const s_Prefix = ".zebtdx-part-";
constexpr mode_t s_Mode = 0666;
constexpr int s_Attempts = 100;

// Whether the name still belongs to the open file.
bool isNamed(int directory, const std::string& name, int descriptor)
{
    struct stat open = {};
    struct stat named = {};
    return ::fstat(descriptor, &open) == 0 &&
           ::fstatat(directory, name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
           open.st_dev == named.st_dev && open.st_ino == named.st_ino;
}

// Removes what a killed process left under this name.
void removeStale(int directory, const std::string& name)
{
    constexpr int flags = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    // Some network file systems lock exclusively only what is open for writing.
    int descriptor = ::openat(directory, name.c_str(), O_RDWR | flags);
    if (descriptor < 0)
        descriptor = ::openat(directory, name.c_str(), O_RDONLY | flags);
    // A link, or a file without permission to read, is no part of a running process. A name that is
    // gone may already belong to the new part of another one.
    if (descriptor < 0 && errno != EACCES && errno != ELOOP && errno != ENXIO)
        return;
    const bool isInUse =
        descriptor >= 0 && ::flock(descriptor, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    if (!isInUse && (descriptor < 0 || isNamed(directory, name, descriptor)))
        ::unlinkat(directory, name.c_str(), 0);
    if (descriptor >= 0)
        ::close(descriptor);
    if (isInUse)
        throw ToolError("is being restored by another process", EWOULDBLOCK);
}

// The descriptor of a new file that is locked.
int create(int directory, const std::string& name)
{
    for (int i = 0; i < s_Attempts; ++i) {
        const int descriptor = ::openat(
            directory, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, s_Mode);
        if (descriptor < 0 && errno != EEXIST)
            throw ToolError::ofSystem(errno);
        if (descriptor < 0) {
            removeStale(directory, name);
            continue;
        }
        // Before it was locked, another process may have taken the new file for a stale one: that
        // process holds the lock until the name is gone.
        const bool isTaken = ::flock(descriptor, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
        if (!isTaken && isNamed(directory, name, descriptor))
            return descriptor;
        ::close(descriptor);
    }
    throw ToolError::ofSystem(EEXIST);
}

} // namespace

PartFile::PartFile(const OpenDirectory& directory, const std::string& part)
    : m_Directory(directory), m_Part(part), m_Descriptor(create(directory.descriptor(), part))
{}

PartFile::~PartFile()
{
    // The lock ends last: until then no other process takes the name.
    if (isNamed(m_Directory.descriptor(), m_Part, m_Descriptor))
        ::unlinkat(m_Directory.descriptor(), m_Part.c_str(), 0);
    ::close(m_Descriptor);
}

void PartFile::write(const void* bytes, qint64 size)
{
    FileSystem::write(m_Descriptor, bytes, size);
}

void PartFile::publish(const std::string& name)
{
    // Some file systems report a failed write only when the file is closed. The lock stays.
    const int second = ::fcntl(m_Descriptor, F_DUPFD_CLOEXEC, 0);
    if (second < 0 || ::close(second) != 0)
        throw ToolError::ofSystem(errno);
    // Only without locks can another process have taken the name.
    if (!isNamed(m_Directory.descriptor(), m_Part, m_Descriptor))
        throw ToolError("was taken over by another restore to this directory");
    const int error = FileSystem::renameNew(m_Directory.descriptor(), m_Part, name);
    if (error != 0)
        throw ToolError::ofSystem(error);
}

std::string PartFile::nameFor(const std::string& name, int number)
{
    const QByteArray digest = QCryptographicHash::hash(
        QByteArray::fromStdString(std::to_string(number) + "/" + name), QCryptographicHash::Md5);
    return s_Prefix + digest.toHex().toStdString();
}

bool PartFile::isPartName(const std::string& name)
{
    return name.rfind(s_Prefix, 0) == 0;
}
