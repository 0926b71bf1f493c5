#include "tools/files/FileSystem.h"

#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/ToolError.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <system_error>

#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Opens the directory for one call that syncs, and throws its error.
void syncBy(int (*sync)(int), const std::string& directory)
{
    const int descriptor = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0)
        throw ToolError::ofSystem(errno);
    const int error = sync(descriptor) == 0 ? 0 : errno;
    ::close(descriptor);
    // Some network file systems have no such call for a directory.
    if (error != 0 && error != EINVAL)
        throw ToolError::ofSystem(error);
}

} // namespace

std::vector<FileSystem::Entry> FileSystem::entries(const std::string& directory,
                                                   ErrorReport& errors)
{
    std::vector<Entry> found;
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(::opendir(directory.c_str()), &::closedir);
    while (stream != nullptr) {
        errno = 0;
        const dirent* const entry = ::readdir(stream.get());
        if (entry == nullptr)
            break;
        std::string name = static_cast<const char*>(entry->d_name);
        if (name != "." && name != "..")
            found.push_back({std::move(name), entry->d_type == DT_REG});
    }
    if (errno != 0)
        errors.add(directory, ToolError::ofSystem(errno));
    std::sort(found.begin(), found.end(),
              [](const Entry& a, const Entry& b) { return a.m_Name < b.m_Name; });
    return found;
}

std::string FileSystem::joined(const std::string& directory, const std::string& name)
{
    return !directory.empty() && directory.back() == '/' ? directory + name
                                                         : directory + "/" + name;
}

std::string FileSystem::absolute(const std::string& path)
{
    const std::filesystem::path whole = std::filesystem::absolute(path);
    if (std::find(whole.begin(), whole.end(), "..") == whole.end())
        return whole.lexically_normal().string();
    std::error_code error;
    const std::filesystem::path real = std::filesystem::weakly_canonical(whole, error);
    return error ? whole.string() : real.string();
}

bool FileSystem::isWithin(const std::filesystem::path& path, const std::filesystem::path& directory)
{
    return std::mismatch(directory.begin(), directory.end(), path.begin(), path.end()).first ==
           directory.end();
}

void FileSystem::write(int descriptor, const void* bytes, qint64 size)
{
    const char* next = static_cast<const char*>(bytes);
    while (size > 0) {
        const ssize_t written = ::write(descriptor, next, static_cast<std::size_t>(size));
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            throw ToolError::ofSystem(errno);
        next += written;
        size -= written;
    }
}

qint64 FileSystem::read(int descriptor, void* bytes, qint64 size)
{
    qint64 done = 0;
    while (done < size) {
        const ssize_t count = ::read(descriptor, static_cast<char*>(bytes) + done,
                                     static_cast<std::size_t>(size - done));
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            throw ToolError::ofSystem(errno);
        if (count == 0)
            break;
        done += count;
    }
    return done;
}

std::string FileSystem::whyNotAFile(mode_t mode)
{
    if (S_ISREG(mode))
        return {};
    if (S_ISDIR(mode))
        return "is a directory";
    if (S_ISFIFO(mode))
        return "is a named pipe";
    if (S_ISSOCK(mode))
        return "is a socket";
    if (S_ISCHR(mode))
        return "is a character device";
    if (S_ISBLK(mode))
        return "is a block device";
    return "is not a file";
}

void FileSystem::requireDirectory(const std::string& path)
{
    struct stat status = {};
    if (::stat(path.c_str(), &status) != 0)
        throw ToolError::ofSystem(errno);
    if (!S_ISDIR(status.st_mode))
        throw ToolError::ofSystem(ENOTDIR);
}

int FileSystem::renameNew(int directory, const std::string& from, const std::string& to)
{
    if (::renameat2(directory, from.c_str(), directory, to.c_str(), RENAME_NOREPLACE) == 0)
        return 0;
    if (errno != EINVAL && errno != ENOSYS)
        return errno;
    // This file system cannot do that; a second name does not replace either.
    if (::linkat(directory, from.c_str(), directory, to.c_str(), 0) != 0)
        return errno;
    ::unlinkat(directory, from.c_str(), 0);
    return 0;
}

void FileSystem::syncDirectory(const std::string& path)
{
    syncBy(&::fsync, path);
}

void FileSystem::syncAll(const std::string& directory)
{
    syncBy(&::syncfs, directory);
}
