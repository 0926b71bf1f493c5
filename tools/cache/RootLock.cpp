#include "tools/cache/RootLock.h"

#include "tools/terminal/PathText.h"
#include "tools/terminal/ToolError.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t s_LockFileMode = 0644;
constexpr int s_Attempts = 100;
constexpr int s_Held = -1;
constexpr int s_NoFile = -2;

// Whether the path still names the open file.
bool isSameFile(int descriptor, const std::string& path)
{
    struct stat open = {};
    struct stat named = {};
    return ::fstat(descriptor, &open) == 0 && ::lstat(path.c_str(), &named) == 0 &&
           open.st_dev == named.st_dev && open.st_ino == named.st_ino;
}

int openFile(const std::string& path)
{
    constexpr int flags = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    // Not in one call: some systems refuse that for the file of another user.
    const int there = ::open(path.c_str(), flags);
    if (there >= 0 || errno != ENOENT)
        return there;
    return ::open(path.c_str(), flags | O_CREAT | O_EXCL, s_LockFileMode);
}

// The descriptor of the locked file, s_Held or s_NoFile.
int lockFile(const std::string& path, RootLock::Use use)
{
    const int kind = use == RootLock::Use::Alone ? LOCK_EX : LOCK_SH;
    for (int i = 0; i < s_Attempts; ++i) {
        const int descriptor = openFile(path);
        if (descriptor < 0 && errno == EEXIST)
            continue;
        if (descriptor < 0)
            return s_NoFile;
        if (::flock(descriptor, kind | LOCK_NB) != 0) {
            const int error = errno;
            ::close(descriptor);
            return error == EWOULDBLOCK ? s_Held : s_NoFile;
        }
        // The previous holder may have removed it in between.
        if (isSameFile(descriptor, path))
            return descriptor;
        ::close(descriptor);
    }
    return s_NoFile;
}

} // namespace

RootLock::RootLock(RootLock&& other) noexcept
    : m_Held(std::move(other.m_Held)), m_Partial(other.m_Partial)
{
    other.m_Held.clear();
}

RootLock::~RootLock()
{
    release();
}

std::string RootLock::fileOf(const std::string& root)
{
    struct stat status = {};
    if (::stat(root.c_str(), &status) != 0)
        return {};
    const std::string directory = ::access(s_Directory, W_OK | X_OK) == 0 ? s_Directory : "/tmp";
    return directory + "/zebtdx-" + std::to_string(status.st_dev) + "-" +
           std::to_string(status.st_ino) + ".lock";
}

void RootLock::take(const std::vector<std::string>& roots, Use use)
{
    release();
    m_Partial = false;
    for (const std::string& root : roots) {
        const std::string path = fileOf(root);
        if (path.empty())
            continue;
        const int descriptor = lockFile(path, use);
        if (descriptor == s_Held) {
            release();
            throw ToolError("cache root " + PathText::printable(root) +
                                " is in use by another process; try again when it has ended",
                            EWOULDBLOCK);
        }
        if (descriptor == s_NoFile)
            m_Partial = true;
        else
            m_Held.push_back({path, descriptor});
    }
}

void RootLock::release()
{
    for (const Held& held : m_Held) {
        // Only an exclusive holder may remove it: others would hold a lock on a file without a
        // name.
        if (::flock(held.m_Descriptor, LOCK_EX | LOCK_NB) == 0 &&
            isSameFile(held.m_Descriptor, held.m_Path))
            ::unlink(held.m_Path.c_str());
        ::close(held.m_Descriptor);
    }
    m_Held.clear();
}
