#include "manager/ZebSystemMemory.h"

#include "manager/ZebMemoryStatus.h"
#include "support/MessageCapture.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

namespace {

constexpr qint64 s_Kilobyte = 1024;
constexpr qint64 s_Megabyte = 1024 * s_Kilobyte;
constexpr qint64 s_Gigabyte = 1024 * s_Megabyte;
constexpr qint64 s_UserAddressSpace = 0x800000000000;

QString failureLine(int line, const char* words)
{
    return QStringLiteral("ZebSystemMemory.cpp:%1:[ !! ] %2").arg(line).arg(QLatin1String(words));
}

QString totalFailed()
{
    return failureLine(165, "Error retrieving memory information.");
}
QString swapFailed()
{
    return failureLine(115, "Error retrieving swap memory information.");
}
QString freeFailed()
{
    return failureLine(232, "Error retrieving memory information.");
}
QString virtualFailed()
{
    return failureLine(337, "Error retrieving virtual memory information.");
}

QByteArray contentsOf(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return file.readAll();
}

// The soft address-space limit of this process, for the length of a scope.
class AddressSpaceLimit
{
public:
    explicit AddressSpaceLimit(rlim_t limit)
    {
        getrlimit(RLIMIT_AS, &m_Previous);
        rlimit changed = m_Previous;
        changed.rlim_cur = limit;
        m_Set = setrlimit(RLIMIT_AS, &changed) == 0;
    }
    ~AddressSpaceLimit() { setrlimit(RLIMIT_AS, &m_Previous); }
    AddressSpaceLimit(const AddressSpaceLimit&) = delete;
    AddressSpaceLimit& operator=(const AddressSpaceLimit&) = delete;

    // Whether this process may set that limit.
    bool isSet() const { return m_Set; }

private:
    rlimit m_Previous = {};
    bool m_Set = false;
};

} // namespace

// Probes that read below a directory of the test. Files that the test has not written do not exist.
class ZebSystemMemoryTest : public ::testing::Test
{
protected:
    ZebSystemMemoryTest() { ZebMemoryStatus::setSourceRoot(m_Directory.path()); }
    ~ZebSystemMemoryTest() override { ZebMemoryStatus::setSourceRoot(QString()); }

    void write(const QString& path, const QByteArray& contents)
    {
        const QString full = m_Directory.path() + path;
        ASSERT_TRUE(QDir().mkpath(QFileInfo(full).path()));
        QFile file(full);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.write(contents), contents.size());
    }

    void writeNumber(const QString& path, qint64 number)
    {
        write(path, QByteArray::number(number) + '\n');
    }

    void writeMemory(qint64 totalKb, qint64 availableKb, qint64 swapKb)
    {
        write(QStringLiteral("/proc/meminfo"),
              "MemTotal:       " + QByteArray::number(totalKb) + " kB\n" +
                  "MemFree:             123 kB\n" + "MemAvailable:   " +
                  QByteArray::number(availableKb) + " kB\n" + "SwapCached:            7 kB\n" +
                  "SwapTotal:      " + QByteArray::number(swapKb) + " kB\n" +
                  "SwapFree:              5 kB\n");
    }

    // A machine of 16 GiB, with 12 GiB available and no swap.
    void writeLargeMachine() { writeMemory(16 * s_Megabyte, 12 * s_Megabyte, 0); }

    void writeGroups(const QByteArray& lines) { write(QStringLiteral("/proc/self/cgroup"), lines); }

    void writeUnified(const QString& group, const QByteArray& limit, qint64 usage,
                      qint64 inactiveFile, qint64 activeFile = 0, qint64 reclaimableSlab = 0)
    {
        const QString directory = QStringLiteral("/sys/fs/cgroup") + group;
        write(directory + QStringLiteral("/memory.max"), limit + '\n');
        writeNumber(directory + QStringLiteral("/memory.current"), usage);
        write(directory + QStringLiteral("/memory.stat"),
              "anon 999999999999\nfile 999999999999\ninactive_file " +
                  QByteArray::number(inactiveFile) + "\nactive_file " +
                  QByteArray::number(activeFile) + "\nslab_reclaimable " +
                  QByteArray::number(reclaimableSlab) + "\nslab 999999999999\n");
    }

    void writeLegacy(const QString& group, qint64 limit, qint64 usage, qint64 inactiveFile,
                     qint64 activeFile = 0)
    {
        const QString directory = QStringLiteral("/sys/fs/cgroup/memory") + group;
        writeNumber(directory + QStringLiteral("/memory.limit_in_bytes"), limit);
        writeNumber(directory + QStringLiteral("/memory.usage_in_bytes"), usage);
        // The first figures leave the groups below out; the totals are what counts.
        write(directory + QStringLiteral("/memory.stat"),
              "inactive_file 999999999999\nactive_file 999999999999\ntotal_inactive_file " +
                  QByteArray::number(inactiveFile) + "\ntotal_active_file " +
                  QByteArray::number(activeFile) + '\n');
    }

    static QByteArray bytes(qint64 number) { return QByteArray::number(number); }

    void expectQuiet() const { EXPECT_EQ(m_Messages.debugLines(), QStringList()); }

    QTemporaryDir m_Directory;
    MessageCapture m_Messages;
};

TEST(ZebSystemMemory, GivesPlausibleFiguresOfThisMachine)
{
    const MessageCapture messages;
    const qint64 total = ZebGetTotalPhysicalMemoryBytes();
    const qint64 free = ZebGetFreePhysicalMemoryBytes();
    EXPECT_GT(total, 0);
    EXPECT_GE(free, 0);
    EXPECT_LE(free, total);
    EXPECT_LE(total, static_cast<qint64>(sysconf(_SC_PHYS_PAGES)) * sysconf(_SC_PAGESIZE));
    const qint64 addresses = ZebGetFreeVirtualMemoryBytes();
    EXPECT_GT(addresses, 0);
    EXPECT_LT(addresses, s_UserAddressSpace);
    EXPECT_TRUE(messages.messages().isEmpty());
}

TEST(ZebSystemMemory, GivesTheSwapOfThisMachine)
{
    const MessageCapture messages;
    qint64 expected = -1;
    for (const QByteArray& line : contentsOf(QStringLiteral("/proc/meminfo")).split('\n')) {
        if (line.startsWith("SwapTotal:"))
            expected = line.simplified().split(' ').at(1).toLongLong() * s_Kilobyte;
    }
    ASSERT_GE(expected, 0);
    EXPECT_EQ(ZebGetTotalSwapMemoryBytes(), expected);
    EXPECT_EQ(ZebSystemHasVirtualMemory(), expected > 0);
    EXPECT_TRUE(messages.messages().isEmpty());
}

TEST_F(ZebSystemMemoryTest, FiguresComeFromTheKernelInKilobytes)
{
    writeMemory(1000, 400, 30);
    EXPECT_EQ(ZebGetTotalPhysicalMemoryBytes(), 1000 * s_Kilobyte);
    EXPECT_EQ(ZebGetFreePhysicalMemoryBytes(), 400 * s_Kilobyte);
    EXPECT_EQ(ZebGetTotalSwapMemoryBytes(), 30 * s_Kilobyte);
    EXPECT_TRUE(ZebSystemHasVirtualMemory());
    expectQuiet();
}

TEST_F(ZebSystemMemoryTest, AMachineWithoutSwapHasNoVirtualMemory)
{
    writeMemory(1000, 400, 0);
    EXPECT_EQ(ZebGetTotalSwapMemoryBytes(), 0);
    EXPECT_FALSE(ZebSystemHasVirtualMemory());
    expectQuiet();
}

TEST_F(ZebSystemMemoryTest, EachCallReadsTheFiguresAgain)
{
    writeMemory(1000, 400, 30);
    EXPECT_EQ(ZebGetTotalPhysicalMemoryBytes(), 1000 * s_Kilobyte);
    EXPECT_EQ(ZebGetFreePhysicalMemoryBytes(), 400 * s_Kilobyte);
    writeMemory(2000, 300, 0);
    EXPECT_EQ(ZebGetTotalPhysicalMemoryBytes(), 2000 * s_Kilobyte);
    EXPECT_EQ(ZebGetFreePhysicalMemoryBytes(), 300 * s_Kilobyte);
    EXPECT_FALSE(ZebSystemHasVirtualMemory());
    expectQuiet();
}

TEST_F(ZebSystemMemoryTest, AnUnreadableTotalIsTakenForEightGigabytes)
{
    EXPECT_EQ(ZebGetTotalPhysicalMemoryBytes(), 0x200000000);
    EXPECT_EQ(m_Messages.debugLines(), QStringList(totalFailed()));
    EXPECT_FALSE(m_Messages.messages().at(0).m_HasContext);
}

TEST_F(ZebSystemMemoryTest, AnUnreadableSwapIsTakenForOneByteAndCountsAsVirtualMemory)
{
    EXPECT_EQ(ZebGetTotalSwapMemoryBytes(), 1);
    EXPECT_EQ(m_Messages.debugLines(), QStringList(swapFailed()));
    m_Messages.clear();
    EXPECT_TRUE(ZebSystemHasVirtualMemory());
    EXPECT_EQ(m_Messages.debugLines(), QStringList(swapFailed()));
}

TEST_F(ZebSystemMemoryTest, AnUnreadableFreeFigureIsAFifthOfTheUnreadableTotal)
{
    EXPECT_EQ(ZebGetFreePhysicalMemoryBytes(), 1717986918);
    EXPECT_EQ(m_Messages.debugLines(), QStringList({freeFailed(), totalFailed()}));
}

TEST_F(ZebSystemMemoryTest, AnUnreadableFreeAddressSpaceIsAFifthOfTheUnreadableSwap)
{
    EXPECT_EQ(ZebGetFreeVirtualMemoryBytes(), 0);
    EXPECT_EQ(m_Messages.debugLines(), QStringList({virtualFailed(), swapFailed()}));
}

TEST_F(ZebSystemMemoryTest, AFallbackUsesTheFigureThatCanBeRead)
{
    write(QStringLiteral("/proc/meminfo"), "MemTotal: 17 kB\nSwapTotal: 12 kB\n");
    EXPECT_EQ(ZebGetFreePhysicalMemoryBytes(), 17 * s_Kilobyte / 5);
    EXPECT_EQ(m_Messages.debugLines(), QStringList(freeFailed()));
    m_Messages.clear();
    EXPECT_EQ(ZebGetFreeVirtualMemoryBytes(), 12 * s_Kilobyte / 5);
    EXPECT_EQ(m_Messages.debugLines(), QStringList(virtualFailed()));
}

TEST_F(ZebSystemMemoryTest, TextThatIsNoNumberIsUnreadable)
{
    write(QStringLiteral("/proc/meminfo"),
          "MemTotal: lots kB\nMemAvailable:\nSwapTotal: 0x10 kB\n");
    write(QStringLiteral("/proc/self/statm"), "many 2 3 4 5 6 7\n");
    EXPECT_EQ(ZebGetTotalPhysicalMemoryBytes(), 0x200000000);
    EXPECT_EQ(ZebGetTotalSwapMemoryBytes(), 1);
    EXPECT_EQ(ZebGetFreePhysicalMemoryBytes(), 1717986918);
    EXPECT_EQ(ZebGetFreeVirtualMemoryBytes(), 0);
    EXPECT_EQ(m_Messages.debugLines(), QStringList({totalFailed(), swapFailed(), freeFailed(),
                                                    totalFailed(), virtualFailed(), swapFailed()}));
}

TEST_F(ZebSystemMemoryTest, AKeyWithTheSamePrefixIsAnotherKey)
{
    write(QStringLiteral("/proc/meminfo"),
          "MemTotalHuge: 9 kB\nMemTotal: 5 kB\nMemAvailable: 4 kB\nMySwapTotal: 8 kB\n");
    EXPECT_EQ(ZebGetTotalPhysicalMemoryBytes(), 5 * s_Kilobyte);
    expectQuiet();
    EXPECT_EQ(ZebGetTotalSwapMemoryBytes(), 1);
    EXPECT_EQ(m_Messages.debugLines(), QStringList(swapFailed()));
}

TEST_F(ZebSystemMemoryTest, AnUnlimitedGroupBoundsNothing)
{
    writeLargeMachine();
    writeGroups("0::/user/session\n");
    writeUnified(QStringLiteral("/user/session"), "max", s_Gigabyte, 0);
    EXPECT_EQ(ZebGetTotalPhysicalMemoryBytes(), 16 * s_Gigabyte);
    EXPECT_EQ(ZebGetFreePhysicalMemoryBytes(), 12 * s_Gigabyte);
    expectQuiet();
}

TEST_F(ZebSystemMemoryTest, AGroupLimitBoundsTotalAndFree)
{
    writeLargeMachine();
    writeGroups("0::/user/session\n");
    writeUnified(QStringLiteral("/user/session"), bytes(s_Gigabyte), 600 * s_Megabyte,
                 100 * s_Megabyte);
    EXPECT_EQ(ZebGetTotalPhysicalMemoryBytes(), s_Gigabyte);
    // File pages that the group can drop count as free.
    EXPECT_EQ(ZebGetFreePhysicalMemoryBytes(), (1024 - 600 + 100) * s_Megabyte);
    expectQuiet();
}

TEST_F(ZebSystemMemoryTest, FilePagesInUseAndReclaimableSlabOfAGroupCountAsFree)
{
    // What a store has read and written is in the page cache, mostly on the active list.
    writeLargeMachine();
    writeGroups("0::/busy\n");
    writeUnified(QStringLiteral("/busy"), bytes(s_Gigabyte), 1000 * s_Megabyte, 100 * s_Megabyte,
                 600 * s_Megabyte, 50 * s_Megabyte);
    EXPECT_EQ(ZebGetFreePhysicalMemoryBytes(), (1024 - 1000 + 750) * s_Megabyte);
    writeGroups("4:memory:/busy\n");
    writeLegacy(QStringLiteral("/busy"), s_Gigabyte, 1000 * s_Megabyte, 100 * s_Megabyte,
                600 * s_Megabyte);
    EXPECT_EQ(ZebGetFreePhysicalMemoryBytes(), (1024 - 1000 + 700) * s_Megabyte);
    expectQuiet();
}

TEST_F(ZebSystemMemoryTest, AGroupLimitAboveTheMachineBoundsNothing)
{
    writeLargeMachine();
    writeGroups("0::/wide\n");
    writeUnified(QStringLiteral("/wide"), bytes(64 * s_Gigabyte), s_Gigabyte, 0);
    EXPECT_EQ(ZebGetTotalPhysicalMemoryBytes(), 16 * s_Gigabyte);
    EXPECT_EQ(ZebGetFreePhysicalMemoryBytes(), 12 * s_Gigabyte);
}

TEST_F(ZebSystemMemoryTest, TheMachineBoundsWhatAGroupWouldLeave)
{
    writeMemory(16 * s_Megabyte, 2 * s_Megabyte, 0);
    writeGroups("0::/wide\n");
    writeUnified(QStringLiteral("/wide"), bytes(8 * s_Gigabyte), s_Gigabyte, 0);
    EXPECT_EQ(ZebGetTotalPhysicalMemoryBytes(), 8 * s_Gigabyte);
    EXPECT_EQ(ZebGetFreePhysicalMemoryBytes(), 2 * s_Gigabyte);
}

TEST_F(ZebSystemMemoryTest, TheTightestOfNestedGroupsBounds)
{
    writeLargeMachine();
    writeGroups("0::/outer/middle/inner\n");
    writeUnified(QStringLiteral("/outer"), bytes(2 * s_Gigabyte), 1900 * s_Megabyte, 0);
    writeUnified(QStringLiteral("/outer/middle"), bytes(s_Gigabyte), 100 * s_Megabyte, 0);
    writeUnified(QStringLiteral("/outer/middle/inner"), "max", 50 * s_Megabyte, 0);
    // The total is bounded by one group, what is left of it by another.
    EXPECT_EQ(ZebGetTotalPhysicalMemoryBytes(), s_Gigabyte);
    EXPECT_EQ(ZebGetFreePhysicalMemoryBytes(), (2048 - 1900) * s_Megabyte);
}

TEST_F(ZebSystemMemoryTest, AnInnerGroupCannotWidenAnOuterOne)
{
    writeLargeMachine();
    writeGroups("0::/outer/inner\n");
    writeUnified(QStringLiteral("/outer"), bytes(s_Gigabyte), 0, 0);
    writeUnified(QStringLiteral("/outer/inner"), bytes(4 * s_Gigabyte), 0, 0);
    EXPECT_EQ(ZebGetTotalPhysicalMemoryBytes(), s_Gigabyte);
    EXPECT_EQ(ZebGetFreePhysicalMemoryBytes(), s_Gigabyte);
}

TEST_F(ZebSystemMemoryTest, AnExhaustedGroupLeavesNothing)
{
    writeLargeMachine();
    writeGroups("0::/full\n");
    writeUnified(QStringLiteral("/full"), bytes(s_Gigabyte), s_Gigabyte + 5, 0);
    EXPECT_EQ(ZebGetFreePhysicalMemoryBytes(), 0);
    expectQuiet();
}

TEST_F(ZebSystemMemoryTest, DroppablePagesNeverLeaveMoreThanTheLimit)
{
    writeLargeMachine();
    writeGroups("0::/odd\n");
    writeUnified(QStringLiteral("/odd"), bytes(s_Gigabyte), 10, 5000);
    EXPECT_EQ(ZebGetFreePhysicalMemoryBytes(), s_Gigabyte);
}

TEST_F(ZebSystemMemoryTest, WithoutStatisticsNoPageCountsAsDroppable)
{
    writeLargeMachine();
    writeGroups("0::/bare\n");
    write(QStringLiteral("/sys/fs/cgroup/bare/memory.max"), bytes(s_Gigabyte));
    write(QStringLiteral("/sys/fs/cgroup/bare/memory.current"), bytes(s_Megabyte));
    EXPECT_EQ(ZebGetTotalPhysicalMemoryBytes(), s_Gigabyte);
    EXPECT_EQ(ZebGetFreePhysicalMemoryBytes(), 1023 * s_Megabyte);
}

TEST_F(ZebSystemMemoryTest, TheGroupAtTheMountPointCounts)
{
    writeLargeMachine();
    writeGroups("0::/\n");
    writeUnified(QString(), bytes(s_Gigabyte), 24 * s_Megabyte, 0);
    EXPECT_EQ(ZebGetTotalPhysicalMemoryBytes(), s_Gigabyte);
    EXPECT_EQ(ZebGetFreePhysicalMemoryBytes(), 1000 * s_Megabyte);
}

TEST_F(ZebSystemMemoryTest, AnInvisibleGroupIsLookedUpAtTheMountPoint)
{
    writeLargeMachine();
    // Inside a container the path may be that of the host.
    writeGroups("4:memory:/docker/0123abcd\n0::/docker/0123abcd\n");
    writeLegacy(QString(), 3 * s_Gigabyte, s_Gigabyte, 0);
    writeUnified(QString(), "max", 0, 0);
    EXPECT_EQ(ZebGetTotalPhysicalMemoryBytes(), 3 * s_Gigabyte);
    EXPECT_EQ(ZebGetFreePhysicalMemoryBytes(), 2 * s_Gigabyte);
}

TEST_F(ZebSystemMemoryTest, AGroupOfTheOlderGenerationBoundsTotalAndFree)
{
    writeLargeMachine();
    writeGroups("9:name=systemd:/\n7:cpu,cpuacct:/other\n4:memory:/batch/job\n");
    writeLegacy(QStringLiteral("/batch"), 4 * s_Gigabyte, 3900 * s_Megabyte, 0);
    writeLegacy(QStringLiteral("/batch/job"), 2 * s_Gigabyte, 1000 * s_Megabyte, 200 * s_Megabyte);
    EXPECT_EQ(ZebGetTotalPhysicalMemoryBytes(), 2 * s_Gigabyte);
    EXPECT_EQ(ZebGetFreePhysicalMemoryBytes(), (4096 - 3900) * s_Megabyte);
    expectQuiet();
}

TEST_F(ZebSystemMemoryTest, TheOlderGenerationCountsTheDroppablePagesOfTheWholeGroup)
{
    writeLargeMachine();
    writeGroups("4:memory:/job\n");
    writeLegacy(QStringLiteral("/job"), 2 * s_Gigabyte, 1000 * s_Megabyte, 200 * s_Megabyte);
    EXPECT_EQ(ZebGetFreePhysicalMemoryBytes(), (2048 - 1000 + 200) * s_Megabyte);
}

TEST_F(ZebSystemMemoryTest, TheOlderGenerationsWordForUnlimitedBoundsNothing)
{
    writeLargeMachine();
    writeGroups("4:memory:/job\n");
    writeLegacy(QStringLiteral("/job"), 9223372036854771712, s_Gigabyte, 0);
    EXPECT_EQ(ZebGetTotalPhysicalMemoryBytes(), 16 * s_Gigabyte);
    EXPECT_EQ(ZebGetFreePhysicalMemoryBytes(), 12 * s_Gigabyte);
}

TEST_F(ZebSystemMemoryTest, MemoryMayShareItsHierarchyWithOtherControllers)
{
    writeLargeMachine();
    writeGroups("4:cpu,memory,pids:/job\n");
    writeLegacy(QStringLiteral("/job"), s_Gigabyte, 0, 0);
    EXPECT_EQ(ZebGetTotalPhysicalMemoryBytes(), s_Gigabyte);
}

TEST_F(ZebSystemMemoryTest, OtherControllersDoNotCount)
{
    writeLargeMachine();
    writeGroups("4:memoryless,cpu:/job\n5:cpuset:/job\n");
    writeLegacy(QStringLiteral("/job"), s_Gigabyte, 0, 0);
    EXPECT_EQ(ZebGetTotalPhysicalMemoryBytes(), 16 * s_Gigabyte);
}

TEST_F(ZebSystemMemoryTest, BothGenerationsAtOnceBoundTogether)
{
    writeLargeMachine();
    writeGroups("4:memory:/old\n0::/new\n");
    writeLegacy(QStringLiteral("/old"), 3 * s_Gigabyte, 2 * s_Gigabyte, 0);
    writeUnified(QStringLiteral("/new"), bytes(2 * s_Gigabyte), 0, 0);
    EXPECT_EQ(ZebGetTotalPhysicalMemoryBytes(), 2 * s_Gigabyte);
    EXPECT_EQ(ZebGetFreePhysicalMemoryBytes(), s_Gigabyte);
}

TEST_F(ZebSystemMemoryTest, TheNameOfAGroupMayHoldColons)
{
    writeLargeMachine();
    writeGroups("0::/a:b/c:d\n");
    writeUnified(QStringLiteral("/a:b/c:d"), bytes(s_Gigabyte), 0, 0);
    EXPECT_EQ(ZebGetTotalPhysicalMemoryBytes(), s_Gigabyte);
}

TEST_F(ZebSystemMemoryTest, LinesThatNameNoGroupAreSkipped)
{
    writeLargeMachine();
    writeGroups("\nnothing\n12:half\n0::/job\n");
    writeUnified(QStringLiteral("/job"), bytes(s_Gigabyte), 0, 0);
    EXPECT_EQ(ZebGetTotalPhysicalMemoryBytes(), s_Gigabyte);
    expectQuiet();
}

TEST_F(ZebSystemMemoryTest, AGroupLimitDoesNotReplaceAnUnreadableTotal)
{
    writeGroups("0::/job\n");
    writeUnified(QStringLiteral("/job"), bytes(s_Gigabyte), 0, 0);
    EXPECT_EQ(ZebGetTotalPhysicalMemoryBytes(), 0x200000000);
    EXPECT_EQ(m_Messages.debugLines(), QStringList(totalFailed()));
}

TEST_F(ZebSystemMemoryTest, TheSwapIsThatOfTheMachineAlsoInALimitedGroup)
{
    writeMemory(16 * s_Megabyte, 12 * s_Megabyte, 2 * s_Megabyte);
    writeGroups("0::/job\n");
    writeUnified(QStringLiteral("/job"), bytes(s_Gigabyte), 0, 0);
    EXPECT_EQ(ZebGetTotalSwapMemoryBytes(), 2 * s_Gigabyte);
}

TEST_F(ZebSystemMemoryTest, WithoutALimitTheUserHalfOfTheAddressSpaceCounts)
{
    const AddressSpaceLimit limit(RLIM_INFINITY);
    if (!limit.isSet())
        GTEST_SKIP() << "this process runs under a hard address-space limit";
    write(QStringLiteral("/proc/self/statm"), "1000 2 3 4 5 6 7\n");
    EXPECT_EQ(ZebGetFreeVirtualMemoryBytes(), s_UserAddressSpace - 1000 * sysconf(_SC_PAGESIZE));
    expectQuiet();
}

TEST_F(ZebSystemMemoryTest, ALimitAboveTheUserHalfOfTheAddressSpaceCountsAsThatHalf)
{
    const AddressSpaceLimit limit(static_cast<rlim_t>(s_UserAddressSpace) + 4096);
    if (!limit.isSet())
        GTEST_SKIP() << "this process runs under a hard address-space limit";
    write(QStringLiteral("/proc/self/statm"), "10\n");
    EXPECT_EQ(ZebGetFreeVirtualMemoryBytes(), s_UserAddressSpace - 10 * sysconf(_SC_PAGESIZE));
}

TEST_F(ZebSystemMemoryTest, AnAddressSpaceLimitBoundsWhatIsFree)
{
    // Well above what this process, with a sanitizer perhaps, has mapped already.
    const qint64 page = sysconf(_SC_PAGESIZE);
    const qint64 mapped =
        contentsOf(QStringLiteral("/proc/self/statm")).split(' ').first().toLongLong() * page;
    const qint64 space = mapped + 4 * s_Gigabyte;
    write(QStringLiteral("/proc/self/statm"), "1000 2 3 4 5 6 7\n");
    qint64 free = -1;
    {
        const AddressSpaceLimit limit(static_cast<rlim_t>(space));
        if (!limit.isSet())
            GTEST_SKIP() << "this process runs under a lower hard address-space limit";
        free = ZebGetFreeVirtualMemoryBytes();
    }
    EXPECT_EQ(free, qMin(space, s_UserAddressSpace) - 1000 * page);
    expectQuiet();
}

TEST_F(ZebSystemMemoryTest, WhatThisProcessHasMappedIsNotFree)
{
    const qint64 page = sysconf(_SC_PAGESIZE);
    write(QStringLiteral("/proc/self/statm"), bytes(s_UserAddressSpace / page - 1));
    EXPECT_LE(ZebGetFreeVirtualMemoryBytes(), page);
    write(QStringLiteral("/proc/self/statm"), bytes(s_UserAddressSpace / page + 1));
    EXPECT_EQ(ZebGetFreeVirtualMemoryBytes(), 0);
    expectQuiet();
}

TEST_F(ZebSystemMemoryTest, ManyThreadsMayAsk)
{
    writeMemory(1000, 400, 30);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            for (int round = 0; round < 50; ++round) {
                EXPECT_EQ(ZebGetTotalPhysicalMemoryBytes(), 1000 * s_Kilobyte);
                EXPECT_EQ(ZebGetFreePhysicalMemoryBytes(), 400 * s_Kilobyte);
                EXPECT_TRUE(ZebSystemHasVirtualMemory());
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    expectQuiet();
}
