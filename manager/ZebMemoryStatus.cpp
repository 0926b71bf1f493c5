#include "manager/ZebMemoryStatus.h"

#include <QByteArray>
#include <QFile>
#include <QFileInfo>
#include <QList>

#include <algorithm>
#include <limits>

#ifdef Q_OS_WIN
#include <windows.h>
#else
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

QString& sourceRoot()
{
    static QString root;
    return root;
}

std::optional<QByteArray> contentsOf(const QString& path)
{
    QFile file(sourceRoot() + path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return file.readAll();
}

std::optional<qint64> numberIn(const QByteArray& text)
{
    bool valid = false;
    const qint64 number = text.trimmed().toLongLong(&valid);
    return valid ? std::optional<qint64>(number) : std::nullopt;
}

std::optional<qint64> numberInFile(const QString& path)
{
    const auto contents = contentsOf(path);
    return contents ? numberIn(*contents) : std::nullopt;
}

// The number after `key`, in lines of key, separators and number.
std::optional<qint64> valueOfKey(const QByteArray& contents, const QByteArray& key)
{
    for (const QByteArray& line : contents.split('\n')) {
        if (!line.startsWith(key))
            continue;
        const QList<QByteArray> words = line.mid(key.size()).simplified().split(' ');
        return numberIn(words.first());
    }
    return {};
}

std::optional<qint64> memoryInfo(const QByteArray& key)
{
    const auto contents = contentsOf(QStringLiteral("/proc/meminfo"));
    const auto kilobytes = contents ? valueOfKey(*contents, key) : std::nullopt;
    return kilobytes ? std::optional<qint64>(*kilobytes * s_BytesPerKilobyte) : std::nullopt;
}

// The file names of one version of control groups.
struct GroupFiles
{
    QString m_Mount;
    QString m_Limit;
    QString m_Usage;
    QByteArray m_DroppableKey;
};

struct GroupMemory
{
    qint64 m_Limit = s_NoLimitBytes;
    qint64 m_Free = s_NoLimitBytes;
};

void narrow(GroupMemory& memory, const GroupFiles& files, const QString& directory)
{
    // An unlimited group of version 2 has a word here; one of version 1 the largest number of whole
    // pages. Usage and statistics are then not read: a full store measures at each admission.
    const auto limit = numberInFile(directory + files.m_Limit);
    if (!limit || *limit < 0 || *limit >= s_NoLimitFromBytes)
        return;
    memory.m_Limit = std::min(memory.m_Limit, *limit);
    const qint64 usage = numberInFile(directory + files.m_Usage).value_or(0);
    const QByteArray statistics =
        contentsOf(directory + QStringLiteral("/memory.stat")).value_or(QByteArray());
    const qint64 droppable = valueOfKey(statistics, files.m_DroppableKey).value_or(0);
    const qint64 used = std::max<qint64>(0, usage - droppable);
    memory.m_Free = std::min(memory.m_Free, std::max<qint64>(0, *limit - used));
}

// The lowest limits of the group and its parents, up to the mount point. In a container the group's
// own directory may not be visible; the mount point then is the group.
GroupMemory memoryOfGroup(const GroupFiles& files, QString group)
{
    GroupMemory memory;
    while (group.endsWith(QLatin1Char('/')))
        group.chop(1);
    for (;;) {
        narrow(memory, files, files.m_Mount + group);
        if (group.isEmpty())
            return memory;
        group.truncate(std::max(0, group.lastIndexOf(QLatin1Char('/'))));
    }
}

GroupMemory memoryOfControlGroup()
{
    static const GroupFiles unified = {
        QStringLiteral("/sys/fs/cgroup"), QStringLiteral("/memory.max"),
        QStringLiteral("/memory.current"), QByteArrayLiteral("inactive_file ")};
    static const GroupFiles legacy = {
        QStringLiteral("/sys/fs/cgroup/memory"), QStringLiteral("/memory.limit_in_bytes"),
        QStringLiteral("/memory.usage_in_bytes"), QByteArrayLiteral("total_inactive_file ")};

    const QByteArray groups =
        contentsOf(QStringLiteral("/proc/self/cgroup")).value_or(QByteArray());
    GroupMemory memory;
    for (const QByteArray& line : groups.split('\n')) {
        // Number, controllers, path, separated by colons; the path may contain colons.
        const int first = line.indexOf(':');
        const int second = first < 0 ? -1 : line.indexOf(':', first + 1);
        if (second < 0)
            continue;
        const QByteArray controllers = line.mid(first + 1, second - first - 1);
        const bool isUnified = controllers.isEmpty();
        if (!isUnified && !controllers.split(',').contains("memory"))
            continue;
        const GroupMemory found =
            memoryOfGroup(isUnified ? unified : legacy, QFile::decodeName(line.mid(second + 1)));
        memory.m_Limit = std::min(memory.m_Limit, found.m_Limit);
        memory.m_Free = std::min(memory.m_Free, found.m_Free);
    }
    return memory;
}

} // namespace

std::optional<qint64> ZebMemoryStatus::totalPhysicalBytes()
{
    const auto total = memoryInfo(QByteArrayLiteral("MemTotal:"));
    if (!total)
        return {};
    return std::min(*total, memoryOfControlGroup().m_Limit);
}

std::optional<qint64> ZebMemoryStatus::freePhysicalBytes()
{
    const auto free = memoryInfo(QByteArrayLiteral("MemAvailable:"));
    if (!free)
        return {};
    return std::min(*free, memoryOfControlGroup().m_Free);
}

std::optional<qint64> ZebMemoryStatus::totalSwapBytes()
{
    return memoryInfo(QByteArrayLiteral("SwapTotal:"));
}

std::optional<qint64> ZebMemoryStatus::freeAddressSpaceBytes()
{
    const auto sizes = contentsOf(QStringLiteral("/proc/self/statm"));
    const auto pages = sizes ? numberIn(sizes->split(' ').first()) : std::nullopt;
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
    sourceRoot() = root;
}

#endif
