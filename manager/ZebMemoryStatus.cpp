#include "manager/ZebMemoryStatus.h"

#include <QByteArray>
#include <QFile>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <limits>
#include <string_view>

#ifdef Q_OS_WIN
#include <windows.h>
#else
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>
#endif

#ifdef Q_OS_WIN

namespace {

std::optional<MEMORYSTATUSEX> memoryStatus()
{
    MEMORYSTATUSEX status;
    status.dwLength = sizeof status;
    if (!GlobalMemoryStatusEx(&status))
        return {};
    return status;
}

} // namespace

std::optional<qint64> ZebMemoryStatus::totalPhysicalBytes()
{
    const auto status = memoryStatus();
    return status ? std::optional<qint64>(qint64(status->ullTotalPhys)) : std::nullopt;
}

std::optional<qint64> ZebMemoryStatus::freePhysicalBytes()
{
    const auto status = memoryStatus();
    return status ? std::optional<qint64>(qint64(status->ullAvailPhys)) : std::nullopt;
}

std::optional<qint64> ZebMemoryStatus::totalSwapBytes()
{
    const auto status = memoryStatus();
    return status ? std::optional<qint64>(qint64(status->ullTotalPageFile - status->ullTotalPhys))
                  : std::nullopt;
}

std::optional<qint64> ZebMemoryStatus::freeAddressSpaceBytes()
{
    const auto status = memoryStatus();
    return status ? std::optional<qint64>(qint64(status->ullAvailVirtual)) : std::nullopt;
}

void ZebMemoryStatus::setSourceRoot(const QString& root)
{
    Q_UNUSED(root)
}

#else

namespace {

constexpr qint64 s_NoLimitBytes = std::numeric_limits<qint64>::max();
constexpr qint64 s_NoLimitFromBytes = 0x4000000000000000;
constexpr qint64 s_BytesPerKilobyte = 1024;

// The user half of a 48-bit address space.
constexpr qint64 s_UserAddressSpaceBytes = 0x800000000000;

constexpr std::size_t s_PathBytes = 4096;

// More than any of the files holds; the statistics of a group are the longest.
constexpr std::size_t s_FileBytes = 16384;

using Path = std::array<char, s_PathBytes>;

QByteArray& sourceRoot()
{
    static QByteArray root;
    return root;
}

// The contents of a small file of the kernel, read without an allocation: a full store measures
// free memory at each admission.
class KernelFile
{
public:
    // The path is the concatenation of the parts.
    explicit KernelFile(std::string_view path, std::string_view directory = "",
                        std::string_view name = "")
    {
        Path full = {};
        const int length = std::snprintf(
            full.data(), full.size(), "%s%.*s%.*s%.*s", sourceRoot().constData(),
            static_cast<int>(path.size()), path.data(), static_cast<int>(directory.size()),
            directory.data(), static_cast<int>(name.size()), name.data());
        if (length < 0 || static_cast<std::size_t>(length) >= full.size())
            return;
        const int descriptor = ::open(full.data(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
        if (descriptor < 0)
            return;
        read(descriptor);
        ::close(descriptor);
    }
    KernelFile(const KernelFile&) = delete;
    KernelFile& operator=(const KernelFile&) = delete;

    // Empty for a file that cannot be read.
    std::string_view text() const { return {m_Bytes.data(), m_Size}; }

private:
    void read(int descriptor)
    {
        while (m_Size < m_Bytes.size()) {
            const ssize_t got =
                ::read(descriptor, m_Bytes.data() + m_Size, m_Bytes.size() - m_Size);
            if (got < 0 && errno == EINTR)
                continue;
            if (got <= 0)
                return;
            m_Size += static_cast<std::size_t>(got);
        }
    }

    std::array<char, s_FileBytes> m_Bytes;
    std::size_t m_Size = 0;
};

// Splits `text` at the first `end`: returns what comes before, and leaves what comes after.
std::string_view takeUntil(std::string_view& text, char end)
{
    const std::size_t length = std::min(text.find(end), text.size());
    const std::string_view taken = text.substr(0, length);
    text.remove_prefix(std::min(length + 1, text.size()));
    return taken;
}

// The decimal number that is the first word of `text`.
std::optional<qint64> numberIn(std::string_view text)
{
    constexpr std::string_view separators = " \t\r\n";
    text.remove_prefix(std::min(text.find_first_not_of(separators), text.size()));
    text = text.substr(0, text.find_first_of(separators));
    qint64 number = 0;
    const std::from_chars_result result =
        std::from_chars(text.data(), text.data() + text.size(), number);
    if (text.empty() || result.ec != std::errc() || result.ptr != text.data() + text.size())
        return {};
    return number;
}

std::optional<qint64> numberInFile(std::string_view path, std::string_view directory = "",
                                   std::string_view name = "")
{
    return numberIn(KernelFile(path, directory, name).text());
}

// The number after `key`, in lines of key, separators and number.
std::optional<qint64> valueOfKey(std::string_view text, std::string_view key)
{
    while (!text.empty()) {
        const std::string_view line = takeUntil(text, '\n');
        if (line.substr(0, key.size()) == key)
            return numberIn(line.substr(key.size()));
    }
    return {};
}

std::optional<qint64> memoryInfo(std::string_view key)
{
    const auto kilobytes = valueOfKey(KernelFile("/proc/meminfo").text(), key);
    return kilobytes ? std::optional<qint64>(*kilobytes * s_BytesPerKilobyte) : std::nullopt;
}

// The file names of one version of control groups.
struct GroupFiles
{
    std::string_view m_Mount;
    std::string_view m_Limit;
    std::string_view m_Usage;
    // The statistics of memory that the kernel gives back on demand: file pages, of both lists, and
    // reclaimable slab, which version 1 does not report.
    std::array<std::string_view, 3> m_DroppableKeys;
};

struct GroupMemory
{
    qint64 m_Limit = s_NoLimitBytes;
    qint64 m_Free = s_NoLimitBytes;
};

void narrow(GroupMemory& memory, const GroupFiles& files, std::string_view group)
{
    // An unlimited group of version 2 has a word here; one of version 1 the largest number of whole
    // pages. Usage and statistics are then not read: a full store measures at each admission.
    const auto limit = numberInFile(files.m_Mount, group, files.m_Limit);
    if (!limit || *limit < 0 || *limit >= s_NoLimitFromBytes)
        return;
    memory.m_Limit = std::min(memory.m_Limit, *limit);
    const qint64 usage = numberInFile(files.m_Mount, group, files.m_Usage).value_or(0);
    const KernelFile statistics(files.m_Mount, group, "/memory.stat");
    qint64 used = usage;
    for (const std::string_view key : files.m_DroppableKeys) {
        if (!key.empty())
            used -= valueOfKey(statistics.text(), key).value_or(0);
    }
    used = std::max<qint64>(0, used);
    memory.m_Free = std::min(memory.m_Free, std::max<qint64>(0, *limit - used));
}

// Narrows to the lowest limits of the group and its parents, up to the mount point. In a container
// the group's own directory may not be visible; the mount point then is the group.
void narrowToGroup(GroupMemory& memory, const GroupFiles& files, std::string_view group)
{
    while (!group.empty() && group.back() == '/')
        group.remove_suffix(1);
    for (;;) {
        narrow(memory, files, group);
        if (group.empty())
            return;
        const std::size_t parent = group.rfind('/');
        group = group.substr(0, parent == std::string_view::npos ? 0 : parent);
    }
}

bool containsMemory(std::string_view controllers)
{
    while (!controllers.empty()) {
        if (takeUntil(controllers, ',') == "memory")
            return true;
    }
    return false;
}

GroupMemory memoryOfControlGroup()
{
    static constexpr GroupFiles unified = {"/sys/fs/cgroup",
                                           "/memory.max",
                                           "/memory.current",
                                           {"active_file ", "inactive_file ", "slab_reclaimable "}};
    static constexpr GroupFiles legacy = {"/sys/fs/cgroup/memory",
                                          "/memory.limit_in_bytes",
                                          "/memory.usage_in_bytes",
                                          {"total_active_file ", "total_inactive_file ", ""}};

    const KernelFile groups("/proc/self/cgroup");
    GroupMemory memory;
    for (std::string_view lines = groups.text(); !lines.empty();) {
        // Number, controllers, path, separated by colons; the path may contain colons.
        std::string_view line = takeUntil(lines, '\n');
        takeUntil(line, ':');
        const std::size_t end = line.find(':');
        if (end == std::string_view::npos)
            continue;
        const std::string_view controllers = line.substr(0, end);
        const std::string_view group = line.substr(end + 1);
        if (controllers.empty())
            narrowToGroup(memory, unified, group);
        else if (containsMemory(controllers))
            narrowToGroup(memory, legacy, group);
    }
    return memory;
}

} // namespace

std::optional<qint64> ZebMemoryStatus::totalPhysicalBytes()
{
    const auto total = memoryInfo("MemTotal:");
    if (!total)
        return {};
    return std::min(*total, memoryOfControlGroup().m_Limit);
}

std::optional<qint64> ZebMemoryStatus::freePhysicalBytes()
{
    const auto free = memoryInfo("MemAvailable:");
    if (!free)
        return {};
    return std::min(*free, memoryOfControlGroup().m_Free);
}

std::optional<qint64> ZebMemoryStatus::totalSwapBytes()
{
    return memoryInfo("SwapTotal:");
}

std::optional<qint64> ZebMemoryStatus::freeAddressSpaceBytes()
{
    const auto pages = numberInFile("/proc/self/statm");
    rlimit limit = {};
    if (!pages || getrlimit(RLIMIT_AS, &limit) != 0)
        return {};
    const qint64 space = limit.rlim_cur > static_cast<rlim_t>(s_UserAddressSpaceBytes)
                             ? s_UserAddressSpaceBytes
                             : static_cast<qint64>(limit.rlim_cur);
    return std::max<qint64>(0, space - *pages * sysconf(_SC_PAGESIZE));
}

void ZebMemoryStatus::setSourceRoot(const QString& root)
{
    sourceRoot() = QFile::encodeName(root);
}

#endif
