#include "io/ZebDirectory.h"

#include <algorithm>
#include <memory>
#include <string_view>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// For paths through a directory, which need no right to list it. With these flags a link is no
// directory.
constexpr int s_Pass = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

} // namespace

// Not s_Pass: the top may be a link.
ZebDirectory::ZebDirectory(const std::string& path)
    : ZebDirectory(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC))
{}

ZebDirectory::ZebDirectory(int descriptor) : m_Descriptor(descriptor) {}

ZebDirectory::~ZebDirectory()
{
    if (isOpen())
        ::close(m_Descriptor);
}

ZebDirectory::ZebDirectory(ZebDirectory&& other) noexcept
    : m_Descriptor(std::exchange(other.m_Descriptor, -1))
{}

ZebDirectory& ZebDirectory::operator=(ZebDirectory&& other) noexcept
{
    std::swap(m_Descriptor, other.m_Descriptor);
    return *this;
}

ZebDirectory ZebDirectory::below(const std::string& path) const
{
    ZebDirectory reached(::openat(m_Descriptor, ".", s_Pass));
    std::size_t begin = 0;
    while (begin < path.size() && reached.isOpen()) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        const std::string element = path.substr(begin, end - begin);
        if (!element.empty())
            reached = ZebDirectory(::openat(reached.m_Descriptor, element.c_str(), s_Pass));
        begin = end + 1;
    }
    return reached;
}

ZebDirectory::Kind ZebDirectory::kindOf(const char* name) const
{
    struct stat status = {};
    if (::fstatat(m_Descriptor, name, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return Kind::Other;
    if (S_ISREG(status.st_mode))
        return Kind::File;
    return S_ISDIR(status.st_mode) ? Kind::Directory : Kind::Other;
}

void ZebDirectory::forEach(const std::function<void(const char* name, Kind kind)>& visit) const
{
    const int listed = ::openat(m_Descriptor, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (listed < 0)
        return;
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(::fdopendir(listed), &::closedir);
    if (stream == nullptr) {
        ::close(listed);
        return;
    }
    while (const dirent* const entry = ::readdir(stream.get())) {
        const char* const name = static_cast<const char*>(entry->d_name);
        const std::string_view view(name);
        if (view == "." || view == "..")
            continue;
        switch (entry->d_type) {
        case DT_REG:
            visit(name, Kind::File);
            break;
        case DT_DIR:
            visit(name, Kind::Directory);
            break;
        case DT_UNKNOWN: // some file systems do not report it here
            visit(name, kindOf(name));
            break;
        default:
            visit(name, Kind::Other);
        }
    }
}

qint64 ZebDirectory::fileSize(const std::string& name) const
{
    struct stat status = {};
    if (::fstatat(m_Descriptor, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISREG(status.st_mode))
        return -1;
    return status.st_size;
}

void ZebDirectory::removeFile(const std::string& name) const
{
    if (fileSize(name) >= 0)
        ::unlinkat(m_Descriptor, name.c_str(), 0);
}
