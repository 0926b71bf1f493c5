#include "tools/cache/Quarantine.h"

#include "tools/files/FileKind.h"
#include "tools/files/FolderNames.h"
#include "tools/terminal/PathText.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t s_FileMode = 0600;
constexpr std::size_t s_PieceBytes = 65536;

// Whether `path` is `folder` or lies in it. Both are absolute, without links.
bool isWithin(const std::filesystem::path& path, const std::filesystem::path& folder)
{
    return std::mismatch(folder.begin(), folder.end(), path.begin(), path.end()).first ==
           folder.end();
}

bool writeAll(int descriptor, const char* bytes, std::size_t size)
{
    while (size > 0) {
        const ssize_t written = ::write(descriptor, bytes, size);
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return false;
        bytes += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

// Copies all that `path` holds to an open file and brings it to the disk. 0, or the number of the
// error.
int copyTo(int target, const std::string& path)
{
    const int source = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (source < 0)
        return errno;
    std::array<char, s_PieceBytes> piece = {};
    int error = 0;
    for (;;) {
        const ssize_t got = ::read(source, piece.data(), piece.size());
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0 || (got > 0 && !writeAll(target, piece.data(), static_cast<std::size_t>(got))))
            error = errno;
        if (got <= 0 || error != 0)
            break;
    }
    ::close(source);
    if (error == 0 && ::fsync(target) != 0)
        error = errno;
    return error;
}

// Makes an empty file of a name that is free, so that nobody else gets it.
int reserve(const std::string& wanted, std::string& target)
{
    for (int i = 1;; ++i) {
        target = i == 1 ? wanted : wanted + "." + std::to_string(i);
        const int descriptor =
            ::open(target.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, s_FileMode);
        if (descriptor >= 0 || errno != EEXIST)
            return descriptor;
    }
}

// 0, or the number of the error; the file is where it was then.
int moveFile(const std::string& path, int descriptor, const std::string& target)
{
    // The reserved file is replaced, which is nobody else's.
    if (::rename(path.c_str(), target.c_str()) == 0)
        return 0;
    if (errno != EXDEV)
        return errno;
    const int error = copyTo(descriptor, path);
    if (error != 0)
        return error;
    return ::unlink(path.c_str()) == 0 ? 0 : errno;
}

} // namespace

Quarantine::Quarantine(std::string folder) : m_Folder(std::move(folder)) {}

std::string Quarantine::whyNot(const std::vector<std::string>& roots) const
{
    std::error_code error;
    const std::filesystem::path folder =
        std::filesystem::weakly_canonical(std::filesystem::absolute(m_Folder, error), error);
    if (error)
        return error.message();
    for (const std::string& root : roots) {
        const std::filesystem::path path = std::filesystem::canonical(root, error);
        if (error)
            return PathText::printable(root) + ": " + error.message();
        if (isWithin(folder, path))
            return "lies in the cache root " + PathText::printable(root) +
                   ", where a collector would remove what is moved there";
        if (isWithin(path, folder / "root-1") || path == folder)
            return "holds the cache root " + PathText::printable(root);
        for (std::size_t i = 1; i < roots.size(); ++i) {
            if (isWithin(path, folder / ("root-" + std::to_string(i + 1))))
                return "holds the cache root " + PathText::printable(root);
        }
    }
    return {};
}

std::string Quarantine::move(const CacheFiles& files, const CacheFiles::File& file,
                             std::string& target) const
{
    const CacheFiles::Folder& from = files.folderOf(file);
    std::string folder = FolderNames::joined(m_Folder, "root-" + std::to_string(from.m_Root + 1));
    if (!from.m_SubCache.empty())
        folder = FolderNames::joined(folder, from.m_SubCache);
    folder = FolderNames::joined(folder, std::to_string(from.m_Bucket));
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error)
        return PathText::printable(folder) + ": " + error.message();
    // A link below the quarantine could lead back.
    if (!isWithin(std::filesystem::canonical(folder, error),
                  std::filesystem::canonical(m_Folder, error)))
        return PathText::printable(folder) + ": leads out of the quarantine";
    const int descriptor = reserve(FolderNames::joined(folder, file.m_Name.text()), target);
    if (descriptor < 0)
        return PathText::printable(target) + ": " + FileKind::errorText(errno);
    const int number = moveFile(files.pathOf(file), descriptor, target);
    ::close(descriptor);
    if (number == 0)
        return {};
    ::unlink(target.c_str());
    return "cannot be moved: " + FileKind::errorText(number);
}
