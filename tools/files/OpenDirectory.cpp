#include "tools/files/OpenDirectory.h"

#include "tools/terminal/PathText.h"
#include "tools/terminal/ToolError.h"

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int s_Flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
constexpr mode_t s_Mode = 0777;

bool isLink(int directory, const std::string& name)
{
    struct stat status = {};
    return ::fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISLNK(status.st_mode);
}

int openChild(int directory, const std::string& name)
{
    // Another thread or process may create it at the same time.
    if (::mkdirat(directory, name.c_str(), s_Mode) != 0 && errno != EEXIST)
        throw ToolError("its directory " + PathText::printable(name) +
                            " cannot be created: " + ToolError::ofSystem(errno).what(),
                        errno);
    const int child = ::openat(directory, name.c_str(), s_Flags | O_NOFOLLOW);
    if (child >= 0)
        return child;
    const int error = errno;
    const std::string what = "its directory " + PathText::printable(name);
    if (isLink(directory, name))
        throw ToolError(what + " is a symbolic link, which is not followed; remove the link",
                        ELOOP);
    throw ToolError(what + " cannot be opened: " + ToolError::ofSystem(error).what(), error);
}

} // namespace

OpenDirectory OpenDirectory::at(const std::string& path)
{
    std::error_code error;
    std::filesystem::create_directories(path, error);
    if (error)
        throw ToolError(error.message(), error.value());
    const int descriptor = ::open(path.c_str(), s_Flags);
    if (descriptor < 0)
        throw ToolError::ofSystem(errno);
    return OpenDirectory(descriptor);
}

OpenDirectory OpenDirectory::below(const OpenDirectory& directory, const std::string& path)
{
    OpenDirectory opened(::fcntl(directory.m_Descriptor, F_DUPFD_CLOEXEC, 0));
    if (opened.m_Descriptor < 0)
        throw ToolError::ofSystem(errno);
    for (const std::filesystem::path& element : std::filesystem::path(path)) {
        const int child = openChild(opened.m_Descriptor, element.string());
        ::close(std::exchange(opened.m_Descriptor, child));
    }
    return opened;
}

OpenDirectory::~OpenDirectory()
{
    if (m_Descriptor >= 0)
        ::close(m_Descriptor);
}

OpenDirectory::OpenDirectory(OpenDirectory&& other) noexcept
    : m_Descriptor(std::exchange(other.m_Descriptor, -1))
{}
