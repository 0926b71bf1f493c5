// What the registry prints and hands out about its hashes. All other tests of the class are in
// ZebHashManagerTest and ZebHashManagerReleaseTest.

#include "hash/ZebHashManager.h"

#include "support/Registry.h"
#include "support/RegistryReports.h"
#include "support/RunTogether.h"

#include <QList>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <utility>
#include <vector>

using RegistryReports::linesOf;
using RegistryReports::Stats;
using RegistryReports::stats;

namespace {

using Pointer = ZebSmartPointer<ZebDataHash>;

// A text form of 8 groups that all have this value.
QString textOfGroups(const QString& value)
{
    return QStringList{value, value, value, value, value, value, value, value}.join("-");
}

// Calls `action` with each message of `operation`, on the thread that sends it.
void withHandler(std::function<void()> action, const std::function<void()>& operation)
{
    static std::function<void()> s_Action;
    s_Action = std::move(action);
    const QtMessageHandler before = qInstallMessageHandler(
        [](QtMsgType, const QMessageLogContext&, const QString&) { s_Action(); });
    operation();
    qInstallMessageHandler(before);
}

// Interned hashes of such texts. Text order is not the order of numbers: 10 comes before 2.
QList<Pointer> holdersOfGroups(const QStringList& values)
{
    QList<Pointer> holders;
    for (const QString& value : values)
        holders.append(registry().getHash(textOfGroups(value)));
    return holders;
}

} // namespace

TEST(ZebHashManagerDiagnostics, DumpStatsWritesItsLinesInOrder)
{
    registry().clearStats();
    const Pointer one = registry().getHash(QByteArray("one"));
    const Pointer two = registry().getHash(QByteArray("two"));
    registry().getHash(QByteArray("three"));
    for (int i = 0; i < 4; ++i)
        registry().getHash(QByteArray("one"));
    registry().addHash(newHash("two"));
    const ZebDataHash outside;
    const int objects = ZebDataHash::hashCount();
    EXPECT_EQ(linesOf(&ZebHashManager::dumpStats),
              (QStringList{"==== ZebTdx Hash Stats ====", "Cache Hits 5", "Cache Misses 3",
                           "Requests 7", "Removes 1", "Registered 2",
                           "Existant " + QString::number(objects), "HashPtrs -1"}));
}

TEST(ZebHashManagerDiagnostics, DebugInfoPrintsEveryHash)
{
    EXPECT_TRUE(linesOf(&ZebHashManager::printDebugInfo).isEmpty());
    const Pointer one = registry().getHash(QByteArray("one"));
    const Pointer copy(one);
    const Pointer two =
        registry().getHash(ZebDataHash(QByteArray("two"), ZebDataHash::Hash1024).toString());
    two->setDontCache(true);
    const Pointer outside(newHash("outside"));
    QStringList lines = linesOf(&ZebHashManager::printDebugInfo);
    QStringList wanted{QString::asprintf("%p 2 ", static_cast<void*>(one.data())) + one->toString(),
                       QString::asprintf("%p 1 ", static_cast<void*>(two.data())) +
                           two->toString()};
    lines.sort();
    wanted.sort();
    EXPECT_EQ(lines, wanted);
}

TEST(ZebHashManagerDiagnostics, ASnapshotAppendsAHolderOfEveryHash)
{
    QList<Pointer> list;
    const ZebHashManager& constRegistry = registry();
    constRegistry.snapshot(list);
    EXPECT_TRUE(list.isEmpty());

    Pointer one = registry().getHash(QByteArray("one"));
    Pointer two = registry().getHash(QByteArray("two"));
    const Pointer outside(newHash("outside"));
    registry().clearStats();
    list.append(outside);
    list.append(Pointer());
    constRegistry.snapshot(list);
    ASSERT_EQ(list.size(), 4);
    EXPECT_EQ(list[0].data(), outside.data());
    EXPECT_TRUE(list[1].isNull());
    EXPECT_EQ(list.count(one), 1);
    EXPECT_EQ(list.count(two), 1);
    EXPECT_EQ(one->refCount(), 2);
    EXPECT_EQ(stats(), (Stats{0, 0, 0, 0}));

    // Only the list holds them now.
    one = Pointer();
    two = Pointer();
    EXPECT_EQ(registry().hashCount(), 2);
    EXPECT_EQ(list[2]->refCount(), 1);
    constRegistry.snapshot(list);
    EXPECT_EQ(list.size(), 6);
    list.clear();
    EXPECT_EQ(registry().hashCount(), 0);
}

TEST(ZebHashManagerDiagnostics, ValidationOfAnEmptyRegistryLogsNothing)
{
    const Pointer outside(newHash("outside"));
    EXPECT_TRUE(linesOf(&ZebHashManager::validateState).isEmpty());
}

TEST(ZebHashManagerDiagnostics, ValidationReportsLeakedHashesInTextOrder)
{
    const QList<Pointer> held = holdersOfGroups({"9", "100", "2", "10", "1", "21", "20"});
    const Pointer copy(held[2]);
    EXPECT_EQ(linesOf(&ZebHashManager::validateState),
              QStringList{"[ !! ] The following live cached hashes have been leaked:\n"
                          "1-1-1-1-1-1-1-1 (Refs = 1)\n"
                          "10-10-10-10-10-10-10-10 (Refs = 1)\n"
                          "100-100-100-100-100-100-100-100 (Refs = 1)\n"
                          "2-2-2-2-2-2-2-2 (Refs = 2)\n"
                          "20-20-20-20-20-20-20-20 (Refs = 1)\n"
                          "21-21-21-21-21-21-21-21 (Refs = 1)\n"
                          "9-9-9-9-9-9-9-9 (Refs = 1)\n"});
}

TEST(ZebHashManagerDiagnostics, ValidationReportsUncachedHashesWithoutTheirCounts)
{
    const QList<Pointer> held = holdersOfGroups({"9", "100", "2", "10", "1", "21", "20"});
    const Pointer copy(held[2]);
    for (const Pointer& hash : held)
        hash->setDontCache(true);
    EXPECT_EQ(linesOf(&ZebHashManager::validateState),
              QStringList{"We have the following live non-cached hashes:\n"
                          "1-1-1-1-1-1-1-1\n"
                          "10-10-10-10-10-10-10-10\n"
                          "100-100-100-100-100-100-100-100\n"
                          "2-2-2-2-2-2-2-2\n"
                          "20-20-20-20-20-20-20-20\n"
                          "21-21-21-21-21-21-21-21\n"
                          "9-9-9-9-9-9-9-9\n"});
}

TEST(ZebHashManagerDiagnostics, ValidationReportsLeakedHashesFirst)
{
    const Pointer marked = registry().getHash(textOfGroups("1"));
    const Pointer leaked = registry().getHash(textOfGroups("2"));
    marked->setDontCache(true);
    EXPECT_EQ(linesOf(&ZebHashManager::validateState),
              (QStringList{"[ !! ] The following live cached hashes have been leaked:\n"
                           "2-2-2-2-2-2-2-2 (Refs = 1)\n",
                           "We have the following live non-cached hashes:\n"
                           "1-1-1-1-1-1-1-1\n"}));
}

TEST(ZebHashManagerDiagnostics, DiagnosticsChangeNothing)
{
    const Pointer one = registry().getHash(QByteArray("one"));
    registry().clearStats();
    linesOf(&ZebHashManager::dumpStats);
    linesOf(&ZebHashManager::printDebugInfo);
    linesOf(&ZebHashManager::validateState);
    EXPECT_EQ(stats(), (Stats{0, 0, 0, 0}));
    EXPECT_EQ(one->refCount(), 1);
    EXPECT_EQ(registry().hashCount(), 1);
}

TEST(ZebHashManagerDiagnostics, HashWithoutAWholeDigestIsPrintedAsAnEmptyText)
{
    const Pointer unread = registry().getHash(QStringLiteral("1-2-3"));
    EXPECT_EQ(linesOf(&ZebHashManager::printDebugInfo),
              QStringList{QString::asprintf("%p 1 ", static_cast<void*>(unread.data()))});
    EXPECT_EQ(linesOf(&ZebHashManager::validateState),
              QStringList{"[ !! ] The following live cached hashes have been leaked:\n"
                          " (Refs = 1)\n"});
    unread->setDontCache(true);
    EXPECT_EQ(linesOf(&ZebHashManager::validateState),
              QStringList{"We have the following live non-cached hashes:\n\n"});
}

TEST(ZebHashManagerDiagnostics, AMessageHandlerMayDropAndTakeHashesMeanwhile)
{
    constexpr int s_Hashes = 3000;
    std::vector<Pointer> held;
    held.reserve(s_Hashes);
    for (int i = 0; i < s_Hashes; ++i)
        held.push_back(registry().getHash(QByteArray::number(i)));
    int lines = 0;
    withHandler(
        [&] {
            ++lines;
            // The whole table is gone after the first line, and holds one new hash.
            held.clear();
            held.push_back(registry().getHash(QByteArray("new")));
        },
        [] { registry().printDebugInfo(); });
    // The new hash is printed too if its place comes later.
    EXPECT_GE(lines, 1);
    EXPECT_LE(lines, 3);
    EXPECT_EQ(registry().hashCount(), 1);

    lines = 0;
    withHandler(
        [&] {
            ++lines;
            held.clear();
            held.push_back(registry().getHash(QByteArray::number(lines)));
            QList<Pointer> list;
            registry().snapshot(list);
            EXPECT_EQ(list.size(), registry().hashCount());
        },
        [] { registry().dumpStats(); });
    EXPECT_EQ(lines, 8);
}

TEST(ZebHashManagerDiagnostics, TheFiguresAreThoseOfOneMoment)
{
    // Each thread has at most one hash at a time. If each shard had its own moment, a thread would
    // have dropped one hash and interned the next in between.
    constexpr int s_Threads = 3;
    std::atomic<bool> isOver{false};
    // The first release constructs the store, which prints lines of its own.
    registry().getHash(QByteArray("first"));
    registry().clearStats();
    std::atomic<int> wrong{0};
    runTogether(s_Threads + 1, [&](int thread) {
        if (thread < s_Threads) {
            for (int i = 0; !isOver; ++i)
                registry().getHash(QByteArray::number(i * s_Threads + thread));
            return;
        }
        const MessageCapture messages;
        for (int i = 0; i < 1000; ++i) {
            const Stats figures = stats();
            const int live = figures.m_Misses - figures.m_Removes;
            if (figures.m_Hits + figures.m_Misses != figures.m_Requests || live < 0 ||
                live > s_Threads)
                ++wrong;
        }
        isOver = true;
    });
    EXPECT_EQ(wrong.load(), 0);
}
