#include "hash/ZebHashManager.h"

#include "support/Fatal.h"
#include "support/MessageCapture.h"
#include "support/Registry.h"
#include "support/RegistryInside.h"
#include "support/RegistryReports.h"

#include <QThread>

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <type_traits>

using RegistryReports::linesOf;
using RegistryReports::Stats;
using RegistryReports::stats;

namespace {

using Pointer = ZebSmartPointer<ZebDataHash>;

QString textOf(const QByteArray& bytes)
{
    return ZebDataHash(bytes, ZebDataHash::Hash512).toString();
}

// A registry in addition to the process's own, whose construction and end a test can observe.
class OwnRegistry : public ZebHashManager
{
public:
    OwnRegistry() = default;
};

// Ends the process with 0 if the first use of the registry logs its one line.
[[noreturn]] void exitAfterFirstUse()
{
    const MessageCapture messages;
    ZebHashManager::instance();
    ZebHashManager::instance();
    const QString wanted = QString::asprintf("Created Hash Manager in thread %p",
                                             static_cast<void*>(QThread::currentThread()));
    const bool isLogged = messages.messages().size() == 1 && messages.count(wanted) == 1 &&
                          !messages.messages().first().m_HasContext;
    std::exit(isLogged ? 0 : 1);
}

Pointer* s_Survivor = nullptr;

// Ends the process with 0 if a hash that is still held is unharmed after the registry's end.
[[noreturn]] void exitWithALiveHash()
{
    const MessageCapture messages;
    // Registered before the registry is built, so it runs after the registry's end.
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
    static_assert(!std::is_default_constructible<ZebHashManager>::value, "The process has one.");
    static_assert(!std::is_copy_constructible<ZebHashManager>::value, "It cannot be copied.");
    static_assert(std::is_destructible<ZebHashManager>::value, "Its end is public.");
    EXPECT_EQ(&ZebHashManager::instance(), &ZebHashManager::instance());
}

TEST(ZebHashManager, LogsItsCreationOnce)
{
    EXPECT_EXIT(exitAfterFirstUse(), ::testing::ExitedWithCode(0), "");
}

TEST(ZebHashManager, ItsEndLeavesHashesAlone)
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

TEST(ZebHashManager, AHashMayOutliveTheRegistry)
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

TEST(ZebHashManager, EmptyBytesAreInternedToo)
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
        // Without a digest, all such texts are equal.
        EXPECT_EQ(registry().getHash(QString("no digest")).data(), one.data());
        EXPECT_EQ(registry().getHash(QString()).data(), one.data());
        EXPECT_TRUE(registry().isHashLive("4-5"));
    }
    EXPECT_EQ(registry().hashCount(), 0);
    EXPECT_FALSE(registry().isHashLive("4-5"));
}

TEST(ZebHashManager, TheTextOfAHashWithoutADigestIsFatal)
{
    EXPECT_FATAL(registry().getHash(QString("1-2-3"))->toString(),
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
    ZebTdxMutex& mutex = RegistryInside::mutexOf(QByteArray("content"));
    mutex.lock();
    const Pointer one = RegistryInside::addHashUnlocked(registry(), newHash("content"));
    const Pointer again = RegistryInside::addHashUnlocked(registry(), newHash("content"));
    mutex.unlock();
    EXPECT_EQ(again.data(), one.data());
    EXPECT_EQ(registry().hashCount(), 1);
    EXPECT_EQ(stats(), (Stats{1, 1, 0, 0}));
}

// Look-ups that change nothing

TEST(ZebHashManager, AHashIsLiveUntilItsLastRelease)
{
    const QString text = textOf("content");
    EXPECT_FALSE(registry().isHashLive(text));
    Pointer one = registry().getHash(QByteArray("content"));
    Pointer second = one;
    EXPECT_TRUE(registry().isHashLive(text));
    EXPECT_FALSE(registry().isHashLive(textOf("other")));
    // Digests of different sizes differ.
    EXPECT_FALSE(
        registry().isHashLive(ZebDataHash(QByteArray("content"), ZebDataHash::Hash256).toString()));
    one = Pointer();
    EXPECT_TRUE(registry().isHashLive(text));
    second = Pointer();
    EXPECT_FALSE(registry().isHashLive(text));
}

TEST(ZebHashManager, IsHashLiveChangesNothing)
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

TEST(ZebHashManager, AddHashCountsAHitOrAMissAndNoRequest)
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

TEST(ZebHashManager, ACounterWrapsAroundAtItsMaximum)
{
    constexpr int s_Most = std::numeric_limits<int>::max();
    constexpr int s_Least = std::numeric_limits<int>::min();
    // Sets the sums of the shards, with another shard than that of the content.
    const auto setAll = [](int value) {
        registry().clearStats();
        ZebHashShards& shards = RegistryInside::shards(registry());
        const bool isFirst =
            &shards.begin()->m_Mutex == &RegistryInside::mutexOf(QByteArray("content"));
        ZebHashShard& shard = *(shards.begin() + (isFirst ? 1 : 0));
        for (quint32* const counter :
             {&shard.m_Requests, &shard.m_CacheHits, &shard.m_CacheMisses, &shard.m_Removes})
            *counter = static_cast<quint32>(value);
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

TEST(ZebHashManager, ClearStatsClearsTheCountersOnly)
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
