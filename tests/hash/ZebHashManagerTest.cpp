#include "hash/ZebHashManager.h"

#include "support/Fatal.h"
#include "support/MessageCapture.h"
#include "support/PrivateAccess.h"

#include <QThread>

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <ostream>
#include <type_traits>

ZEBTDX_ACCESS(AddUnlockedTag, ZebHashManager,
              ZebSmartPointer<ZebDataHash> (ZebHashManager::*)(ZebDataHash*), addHash_Unlocked)
ZEBTDX_ACCESS(RequestsTag, ZebHashManager, int ZebHashManager::*, m_Requests)
ZEBTDX_ACCESS(HitsTag, ZebHashManager, int ZebHashManager::*, m_CacheHits)
ZEBTDX_ACCESS(MissesTag, ZebHashManager, int ZebHashManager::*, m_CacheMisses)
ZEBTDX_ACCESS(RemovesTag, ZebHashManager, int ZebHashManager::*, m_Removes)
ZEBTDX_ACCESS(RegistryMutexTag, ZebHashManager, QMutex ZebHashManager::*, m_Mutex)

namespace {

using Pointer = ZebSmartPointer<ZebDataHash>;

ZebHashManager& registry()
{
    return ZebHashManager::instance();
}

ZebDataHash* newHash(const QByteArray& bytes)
{
    return new ZebDataHash(bytes, ZebDataHash::Hash512);
}

QString textOf(const QByteArray& bytes)
{
    return ZebDataHash(bytes, ZebDataHash::Hash512).toString();
}

// A text form of 8 groups that all have this value.
QString textOfGroups(const QString& value)
{
    return QStringList{value, value, value, value, value, value, value, value}.join("-");
}

// Interned hashes of such texts. Text order is not the order of numbers: 10 comes before 2.
QList<Pointer> holdersOfGroups(const QStringList& values)
{
    QList<Pointer> holders;
    for (const QString& value : values)
        holders.append(registry().getHash(textOfGroups(value)));
    return holders;
}

struct Stats
{
    int m_Hits;
    int m_Misses;
    int m_Requests;
    int m_Removes;

    bool operator==(const Stats& other) const
    {
        return m_Hits == other.m_Hits && m_Misses == other.m_Misses &&
               m_Requests == other.m_Requests && m_Removes == other.m_Removes;
    }
};

std::ostream& operator<<(std::ostream& stream, const Stats& stats)
{
    return stream << "hits " << stats.m_Hits << ", misses " << stats.m_Misses << ", requests "
                  << stats.m_Requests << ", removes " << stats.m_Removes;
}

// The counters as dumpStats() tells them.
Stats stats()
{
    ZebHashManager& manager = registry();
    const MessageCapture messages;
    manager.dumpStats();
    const QStringList lines = messages.debugLines();
    EXPECT_EQ(lines.size(), 8);
    const auto number = [&lines](int line) {
        return lines.value(line).section(' ', -1).toInt();
    };
    return {number(1), number(2), number(3), number(4)};
}

QStringList linesOf(void (ZebHashManager::*operation)())
{
    // The line of its creation comes once in a process, and is no part of this.
    ZebHashManager& manager = registry();
    const MessageCapture messages;
    (manager.*operation)();
    for (const MessageCapture::Message& message : messages.messages()) {
        EXPECT_EQ(message.m_Type, QtDebugMsg);
        EXPECT_FALSE(message.m_HasContext);
    }
    return messages.debugLines();
}

// A registry beside the one of the process, for what happens at its two ends.
class OwnRegistry : public ZebHashManager
{
public:
    OwnRegistry() = default;
};

// Ends the process with 0 when its first use of the registry is told as it should be.
[[noreturn]] void exitAfterFirstUse()
{
    const MessageCapture messages;
    ZebHashManager::instance();
    ZebHashManager::instance();
    const QString wanted = QString::asprintf("Created Hash Manager in thread %p",
                                             static_cast<void*>(QThread::currentThread()));
    const bool told = messages.messages().size() == 1 && messages.count(wanted) == 1 &&
                      !messages.messages().first().m_HasContext;
    std::exit(told ? 0 : 1);
}

Pointer* s_Survivor = nullptr;

// Ends the process with 0 when a hash that is still held stands unharmed after the registry's end.
[[noreturn]] void exitWithALiveHash()
{
    const MessageCapture messages;
    // What is arranged before the registry is built runs after that has gone.
    std::atexit([] {
        const ZebDataHash& hash = **s_Survivor;
        std::_Exit(hash.refCount() == 1 && hash.toString() == textOf("survivor") ? 0 : 1);
    });
    s_Survivor = new Pointer(registry().getHash(QByteArray("survivor")));
    std::exit(2);
}

} // namespace

// One registry

TEST(ZebHashManager, IsOneObject)
{
    static_assert(!std::is_default_constructible<ZebHashManager>::value, "Nobody makes another.");
    static_assert(!std::is_copy_constructible<ZebHashManager>::value, "Nobody copies it.");
    static_assert(std::is_destructible<ZebHashManager>::value, "Its end is public.");
    EXPECT_EQ(&ZebHashManager::instance(), &ZebHashManager::instance());
}

TEST(ZebHashManager, TellsOfItsCreationOnce)
{
    EXPECT_EXIT(exitAfterFirstUse(), ::testing::ExitedWithCode(0), "");
}

TEST(ZebHashManager, ItsEndTouchesNoHash)
{
    const MessageCapture messages;
    const int before = ZebDataHash::hashCount();
    {
        Pointer survivor;
        {
            OwnRegistry own;
            survivor = own.getHash(QByteArray("survivor"));
            EXPECT_EQ(own.hashCount(), 1);
        }
        EXPECT_EQ(survivor->refCount(), 1);
        EXPECT_EQ(survivor->toString(), textOf("survivor"));
    }
    EXPECT_EQ(ZebDataHash::hashCount(), before);
}

TEST(ZebHashManager, AHashMayOutliveTheProcess)
{
    EXPECT_EXIT(exitWithALiveHash(), ::testing::ExitedWithCode(0), "");
}

// Interning

TEST(ZebHashManager, EqualBytesAreOneObject)
{
    const int objects = ZebDataHash::hashCount();
    const int registered = registry().hashCount();
    {
        QByteArray bytes("content");
        const Pointer one = registry().getHash(bytes);
        const Pointer again = registry().getHash(bytes);
        const Pointer raw =
            registry().getHash(reinterpret_cast<unsigned char*>(bytes.data()), bytes.size());
        EXPECT_EQ(again.data(), one.data());
        EXPECT_EQ(raw.data(), one.data());
        EXPECT_EQ(one->refCount(), 3);
        EXPECT_EQ(one->size(), ZebDataHash::Hash512);
        EXPECT_TRUE(*one == ZebDataHash(bytes, ZebDataHash::Hash512));
        EXPECT_EQ(ZebDataHash::hashCount(), objects + 1);
        EXPECT_EQ(registry().hashCount(), registered + 1);

        const Pointer other = registry().getHash(QByteArray("other content"));
        EXPECT_NE(other.data(), one.data());
        EXPECT_EQ(registry().hashCount(), registered + 2);
    }
    EXPECT_EQ(registry().hashCount(), 0);
    EXPECT_EQ(ZebDataHash::hashCount(), objects);
}

TEST(ZebHashManager, TheTextFindsTheHashOfTheBytes)
{
    const Pointer fromBytes = registry().getHash(QByteArray("content"));
    const Pointer fromText = registry().getHash(fromBytes->toString());
    EXPECT_EQ(fromText.data(), fromBytes.data());
    EXPECT_EQ(fromBytes->refCount(), 2);
}

TEST(ZebHashManager, TheBytesFindTheHashOfTheText)
{
    const Pointer fromText = registry().getHash(textOf("content"));
    const Pointer fromBytes = registry().getHash(QByteArray("content"));
    EXPECT_EQ(fromText.data(), fromBytes.data());
    EXPECT_EQ(fromText->size(), ZebDataHash::Hash512);
}

TEST(ZebHashManager, EveryWidthOfTextIsInterned)
{
    for (const ZebDataHash::Size size :
         {ZebDataHash::Hash256, ZebDataHash::Hash512, ZebDataHash::Hash1024}) {
        const ZebDataHash wanted(QByteArray("content"), size);
        const Pointer one = registry().getHash(wanted.toString());
        EXPECT_TRUE(*one == wanted);
        EXPECT_EQ(registry().getHash(wanted.toString()).data(), one.data());
        EXPECT_EQ(registry().hashCount(), 1);
    }
    EXPECT_EQ(registry().hashCount(), 0);
}

TEST(ZebHashManager, EmptyBytesAreAContent)
{
    const Pointer one = registry().getHash(QByteArray());
    EXPECT_EQ(registry().getHash(nullptr, 0).data(), one.data());
    EXPECT_EQ(one->toString(), textOf(QByteArray()));
}

TEST(ZebHashManager, ATextOfUnknownWidthIsInternedWithoutADigest)
{
    ASSERT_EQ(registry().hashCount(), 0);
    const MessageCapture messages;
    {
        const Pointer one = registry().getHash(QString("1-2-3"));
        EXPECT_EQ(registry().hashCount(), 1);
        EXPECT_EQ(one->size(), ZebDataHash::Hash256);
        EXPECT_EQ(messages.debugLines(), QStringList{"Unknown Hash Bit Size 12"});
        // Without a digest, all such texts are one content.
        EXPECT_EQ(registry().getHash(QString("no digest")).data(), one.data());
        EXPECT_EQ(registry().getHash(QString()).data(), one.data());
        EXPECT_TRUE(registry().isHashLive("4-5"));
    }
    EXPECT_EQ(registry().hashCount(), 0);
    EXPECT_FALSE(registry().isHashLive("4-5"));
}

TEST(ZebHashManager, WritingAHashWithoutADigestIsFatal)
{
    EXPECT_FATAL(registry().getHash(QString("1-2-3"))->toString(),
                 "Size of data is incorrect is 0, should be 32");
    EXPECT_FATAL(
        {
            const Pointer held = registry().getHash(QString("1-2-3"));
            registry().printDebugInfo();
        },
        "Size of data is incorrect is 0, should be 32");
}

TEST(ZebHashManager, UserIdAndMarkStayWhileTheHashLives)
{
    {
        const Pointer one = registry().getHash(QByteArray("content"));
        one->setUserId(42);
        one->setDontCache(true);
        EXPECT_EQ(registry().getHash(QByteArray("content"))->userId(), 42);
        EXPECT_EQ(registry().getHash(textOf("content"))->userId(), 42);
        EXPECT_TRUE(registry().getHash(textOf("content"))->isDontCache());
    }
    EXPECT_EQ(registry().getHash(QByteArray("content"))->userId(), 0);
}

// addHash

TEST(ZebHashManager, AddHashInternsTheObjectItself)
{
    const int objects = ZebDataHash::hashCount();
    {
        ZebDataHash* const hash = newHash("content");
        hash->setUserId(7);
        hash->setDontCache(true);
        const Pointer added = registry().addHash(hash);
        EXPECT_EQ(added.data(), hash);
        EXPECT_EQ(hash->refCount(), 1);
        EXPECT_EQ(registry().hashCount(), 1);
        EXPECT_EQ(registry().getHash(QByteArray("content")).data(), hash);
        EXPECT_EQ(hash->userId(), 7);
        EXPECT_TRUE(hash->isDontCache());
    }
    EXPECT_EQ(registry().hashCount(), 0);
    EXPECT_EQ(ZebDataHash::hashCount(), objects);
}

TEST(ZebHashManager, AddHashDeletesATwin)
{
    const Pointer registered = registry().getHash(QByteArray("content"));
    registered->setUserId(7);
    const int objects = ZebDataHash::hashCount();
    ZebDataHash* const twin = newHash("content");
    twin->setUserId(8);
    twin->setDontCache(true);
    const Pointer added = registry().addHash(twin);
    EXPECT_EQ(added.data(), registered.data());
    EXPECT_EQ(registered->refCount(), 2);
    EXPECT_EQ(ZebDataHash::hashCount(), objects);
    EXPECT_EQ(registered->userId(), 7);
    EXPECT_FALSE(registered->isDontCache());
    EXPECT_EQ(registry().hashCount(), 1);
}

TEST(ZebHashManager, AddHashOfARegisteredObjectKeepsIt)
{
    const Pointer registered = registry().getHash(QByteArray("content"));
    const int objects = ZebDataHash::hashCount();
    const Pointer added = registry().addHash(registered.data());
    EXPECT_EQ(added.data(), registered.data());
    EXPECT_EQ(registered->refCount(), 2);
    EXPECT_EQ(ZebDataHash::hashCount(), objects);
}

TEST(ZebHashManager, AddHashOfNullIsNull)
{
    registry().clearStats();
    EXPECT_TRUE(registry().addHash(nullptr).isNull());
    EXPECT_EQ(registry().hashCount(), 0);
    EXPECT_EQ(stats(), (Stats{0, 0, 0, 0}));
}

TEST(ZebHashManager, TheUnlockedFormWorksUnderTheCallersLock)
{
    registry().clearStats();
    QMutex& mutex = registry().*privateMember(RegistryMutexTag());
    const auto addUnlocked = privateMember(AddUnlockedTag());
    mutex.lock();
    const Pointer one = (registry().*addUnlocked)(newHash("content"));
    const Pointer again = (registry().*addUnlocked)(newHash("content"));
    mutex.unlock();
    EXPECT_EQ(again.data(), one.data());
    EXPECT_EQ(registry().hashCount(), 1);
    EXPECT_EQ(stats(), (Stats{1, 1, 0, 0}));
}

// Look-ups that leave no trace

TEST(ZebHashManager, AHashIsLiveUntilItsLastRelease)
{
    const QString text = textOf("content");
    EXPECT_FALSE(registry().isHashLive(text));
    Pointer one = registry().getHash(QByteArray("content"));
    Pointer second = one;
    EXPECT_TRUE(registry().isHashLive(text));
    EXPECT_FALSE(registry().isHashLive(textOf("other")));
    // A digest of another size is another content.
    EXPECT_FALSE(
        registry().isHashLive(ZebDataHash(QByteArray("content"), ZebDataHash::Hash256).toString()));
    one = Pointer();
    EXPECT_TRUE(registry().isHashLive(text));
    second = Pointer();
    EXPECT_FALSE(registry().isHashLive(text));
}

TEST(ZebHashManager, AskingWhetherAHashIsLiveChangesNothing)
{
    const QString text = textOf("content");
    const Pointer one = registry().getHash(QByteArray("content"));
    registry().clearStats();
    const int objects = ZebDataHash::hashCount();
    const ZebHashManager& constRegistry = registry();
    EXPECT_TRUE(constRegistry.isHashLive(text));
    EXPECT_FALSE(constRegistry.isHashLive(textOf("other")));
    EXPECT_EQ(constRegistry.hashCount(), 1);
    EXPECT_EQ(stats(), (Stats{0, 0, 0, 0}));
    EXPECT_EQ(registry().hashCount(), 1);
    EXPECT_EQ(ZebDataHash::hashCount(), objects);
    EXPECT_EQ(one->refCount(), 1);
}

// The counters

TEST(ZebHashManager, EveryGetHashIsARequest)
{
    registry().clearStats();
    QByteArray bytes("content");
    const Pointer miss = registry().getHash(bytes);
    EXPECT_EQ(stats(), (Stats{0, 1, 1, 0}));
    registry().getHash(bytes);
    registry().getHash(reinterpret_cast<unsigned char*>(bytes.data()), bytes.size());
    registry().getHash(miss->toString());
    EXPECT_EQ(stats(), (Stats{3, 1, 4, 0}));
    registry().getHash(textOf("other"));
    EXPECT_EQ(stats(), (Stats{3, 2, 5, 1}));
}

TEST(ZebHashManager, AddHashIsNoRequestButAHitOrAMiss)
{
    registry().clearStats();
    const Pointer miss = registry().addHash(newHash("content"));
    EXPECT_EQ(stats(), (Stats{0, 1, 0, 0}));
    registry().addHash(newHash("content"));
    registry().addHash(newHash("content"));
    EXPECT_EQ(stats(), (Stats{2, 1, 0, 0}));
    registry().addHash(newHash("other"));
    EXPECT_EQ(stats(), (Stats{2, 2, 0, 1}));
}

TEST(ZebHashManager, OnlyErasedEntriesAreRemoves)
{
    registry().clearStats();
    Pointer one = registry().getHash(QByteArray("content"));
    {
        const Pointer copy(one);
        const Pointer twin(newHash("content"));
        const Pointer outside(newHash("outside"));
        const ZebDataHash plain(QByteArray("content"), ZebDataHash::Hash512);
    }
    EXPECT_EQ(stats().m_Removes, 0);
    one = Pointer();
    EXPECT_EQ(stats().m_Removes, 1);
}

TEST(ZebHashManager, ACounterAtItsEndGoesOnFromBelow)
{
    constexpr int s_Most = std::numeric_limits<int>::max();
    constexpr int s_Least = std::numeric_limits<int>::min();
    const auto setAll = [](int value) {
        registry().*privateMember(RequestsTag()) = value;
        registry().*privateMember(HitsTag()) = value;
        registry().*privateMember(MissesTag()) = value;
        registry().*privateMember(RemovesTag()) = value;
    };
    setAll(s_Most);
    registry().getHash(QByteArray("content"));
    EXPECT_EQ(stats(), (Stats{s_Most, s_Least, s_Least, s_Least}));
    const Pointer held = registry().getHash(QByteArray("content"));
    setAll(s_Most);
    registry().addHash(newHash("content"));
    EXPECT_EQ(stats(), (Stats{s_Least, s_Most, s_Most, s_Most}));
    registry().clearStats();
}

TEST(ZebHashManager, ClearStatsClearsTheCountersAlone)
{
    const Pointer one = registry().getHash(QByteArray("content"));
    registry().getHash(QByteArray("content"));
    registry().getHash(QByteArray("other"));
    const Stats before = stats();
    EXPECT_GT(before.m_Hits, 0);
    EXPECT_GT(before.m_Misses, 0);
    EXPECT_GT(before.m_Requests, 0);
    EXPECT_GT(before.m_Removes, 0);
    EXPECT_TRUE(linesOf(&ZebHashManager::clearStats).isEmpty());
    EXPECT_EQ(stats(), (Stats{0, 0, 0, 0}));
    EXPECT_EQ(registry().hashCount(), 1);
    EXPECT_TRUE(registry().isHashLive(textOf("content")));
}

// Diagnostics

TEST(ZebHashManager, DumpStatsWritesItsLinesInOrder)
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

TEST(ZebHashManager, DebugInfoTellsOfEveryHash)
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

TEST(ZebHashManager, ASnapshotAppendsAHolderOfEveryHash)
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

    // The list alone keeps them.
    one = Pointer();
    two = Pointer();
    EXPECT_EQ(registry().hashCount(), 2);
    EXPECT_EQ(list[2]->refCount(), 1);
    constRegistry.snapshot(list);
    EXPECT_EQ(list.size(), 6);
    list.clear();
    EXPECT_EQ(registry().hashCount(), 0);
}

TEST(ZebHashManager, ValidationOfAnEmptyRegistrySaysNothing)
{
    const Pointer outside(newHash("outside"));
    EXPECT_TRUE(linesOf(&ZebHashManager::validateState).isEmpty());
}

TEST(ZebHashManager, ValidationTellsOfLeakedHashesInTextOrder)
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

TEST(ZebHashManager, ValidationTellsOfDontCacheHashesWithoutTheirCounts)
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

TEST(ZebHashManager, ValidationTellsOfLeakedHashesFirst)
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

TEST(ZebHashManager, DiagnosticsChangeNothing)
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
