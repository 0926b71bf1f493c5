// The reader as a thread: its list of preloads. What one load does is tested in
// ZebDataBlockReadThread_LoadTest.cpp.

#include "io/ZebDataBlockReadThread.h"

#include "data/ZebDataReference.h"
#include "hash/ZebHashManager.h"
#include "support/BlockFiles.h"
#include "support/BlockedThread.h"
#include "support/BytesOf.h"
#include "support/FlushProbe.h"
#include "support/ReaderInside.h"
#include "support/SequencePoints.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"
#include "support/WaitUntil.h"
#include "support/Wakes.h"

#include <QElapsedTimer>
#include <QWriteLocker>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr auto s_High = ZebDataBlockManager::PreloadHigh;
constexpr auto s_Normal = ZebDataBlockManager::PreloadNormal;
constexpr auto s_Low = ZebDataBlockManager::PreloadLow;

constexpr int s_Buckets = 10;
constexpr int s_MaxLow = 50;

ZebDataBlockReadThread& managersReader()
{
    return *StoreInside::readers().first();
}

// A reader that is not started at first, for hashes that are named after the bytes of their blocks.
class ReaderStation
{
public:
    explicit ReaderStation(const QString& root = "/nowhere")
        : m_Reader(root, s_Buckets, s_MaxLow, nullptr)
    {}
    ~ReaderStation() { stop(); }
    ReaderStation(const ReaderStation&) = delete;
    ReaderStation& operator=(const ReaderStation&) = delete;

    ZebDataBlockReadThread& reader() { return m_Reader; }

    ZebDataHash& hash(const std::string& name)
    {
        ZebSmartPointer<ZebDataHash>& hash = m_Hashes[name];
        if (hash.isNull())
            hash = ZebHashManager::instance().getHash(QByteArray::fromStdString(name));
        return *hash;
    }

    void request(const std::string& name, ZebDataBlockManager::PreloadPriority priority = s_Normal)
    {
        m_Reader.request(&hash(name), priority);
    }

    void request(const std::string& name, int times)
    {
        for (int i = 0; i < times; ++i)
            request(name);
    }

    // Requests that many other hashes.
    void fill(int count)
    {
        for (int i = 0; i < count; ++i)
            request("filling " + std::to_string(i), s_Normal);
    }

    ReaderInsideList& requests() { return ReaderInside::requests(m_Reader); }

    // The waiting requests, each as its priority and its name. For a reader that does not run.
    std::vector<std::string> list()
    {
        std::vector<std::string> entries;
        for (int i = 0; i < requests().size(); ++i) {
            for (const auto& [name, hash] : m_Hashes) {
                if (requests().valueAt(i) == hash)
                    entries.push_back(std::to_string(requests().priorityAt(i)) + " " + name);
            }
        }
        return entries;
    }

    qint64 promotions() { return ReaderInside::promotionCount(m_Reader); }

    void start() { m_Reader.start(); }

    // waitUntil() that keeps the thread awake.
    template <typename Condition>
    bool waitFor(Condition condition)
    {
        return waitUntil([&] {
            ReaderInside::waitCondition(m_Reader).wakeAll();
            return condition();
        });
    }

    void stop()
    {
        if (!m_Reader.isRunning())
            return;
        m_Reader.closeDown();
        EXPECT_TRUE(waitFor([this] { return m_Reader.isFinished(); }));
        m_Reader.wait();
    }

    // Whether `action` wakes an idle reader. Not for a started one.
    template <typename Action>
    bool actionWakes(Action action)
    {
        return wakes(ReaderInside::waitMutex(m_Reader), ReaderInside::waitCondition(m_Reader),
                     action);
    }

private:
    std::map<std::string, ZebSmartPointer<ZebDataHash>> m_Hashes;
    ZebDataBlockReadThread m_Reader;
};

} // namespace

TEST(ZebDataBlockReadThread, StartsWithNothingToDo)
{
    ReaderStation station;
    EXPECT_TRUE(station.reader().objectName().isEmpty());
    EXPECT_FALSE(station.reader().isRunning());
    EXPECT_TRUE(station.reader().subCache().isEmpty());
    EXPECT_EQ(station.reader().requests(), 0);
    EXPECT_EQ(station.reader().requestsHandled(), 0);
    EXPECT_EQ(station.reader().bytesRead(), 0);
    EXPECT_FALSE(station.reader().requestPromotionEnabled());
    station.reader().setRequestPromotionEnabled(true);
    EXPECT_TRUE(station.reader().requestPromotionEnabled());
}

// Requests

TEST(ZebDataBlockReadThread, ARequestIsListedByItsPriorityAndMarksItsHash)
{
    ReaderStation station;
    station.request("normal", s_Normal);
    station.request("low", s_Low);
    station.request("high", s_High);
    station.request("second normal", s_Normal);
    EXPECT_THAT(station.list(), ElementsAre("0 high", "1 normal", "1 second normal", "2 low"));
    EXPECT_EQ(station.reader().requests(), 4);
    for (const char* const name : {"high", "normal", "second normal", "low"}) {
        EXPECT_TRUE(station.hash(name).isPreloading()) << name;
        EXPECT_EQ(station.hash(name).refCount(), 2) << name;
    }
    EXPECT_EQ(station.reader().requestsHandled(), 0);
}

TEST(ZebDataBlockReadThread, ANewRequestWakesTheThread)
{
    ReaderStation station;
    EXPECT_TRUE(station.actionWakes([&] { station.request("new"); }));
}

TEST(ZebDataBlockReadThread, RefusesALowRequestFromTheLimitOn)
{
    ReaderStation station;
    station.fill(s_MaxLow - 1);
    station.request("the last low one", s_Low);
    EXPECT_EQ(station.reader().requests(), s_MaxLow);
    EXPECT_TRUE(station.hash("the last low one").isPreloading());
    EXPECT_FALSE(station.actionWakes([&] { station.request("refused", s_Low); }));
    EXPECT_EQ(station.reader().requests(), s_MaxLow);
    EXPECT_FALSE(station.hash("refused").isPreloading()) << "it can be asked for again";
    EXPECT_EQ(station.hash("refused").refCount(), 1);
    station.request("normal", s_Normal);
    station.request("high", s_High);
    EXPECT_EQ(station.reader().requests(), s_MaxLow + 2);
    station.request("refused", s_Low);
    EXPECT_EQ(station.reader().requests(), s_MaxLow + 2);
    for (int i = 0; i < 3; ++i)
        station.requests().takeFirst();
    station.request("refused", s_Low);
    EXPECT_EQ(station.reader().requests(), s_MaxLow);
    EXPECT_TRUE(station.hash("refused").isPreloading());
}

TEST(ZebDataBlockReadThread, TheManagersReadersRefuseLowRequestsFromFiftyOn)
{
    const TemporaryStore store;
    EXPECT_EQ(ReaderInside::maxLowPriorityRequests(managersReader()), 50);
}

TEST(ZebDataBlockReadThread, WithoutPromotionARepeatedRequestHasNoEffect)
{
    ReaderStation station;
    station.request("first", s_Normal);
    station.request("second", s_Normal);
    const auto repeat = [&] {
        station.request("second", s_High);
        station.request("second", s_Normal);
        station.request("second", s_Low);
    };
    EXPECT_FALSE(station.actionWakes(repeat));
    EXPECT_THAT(station.list(), ElementsAre("1 first", "1 second"));
    EXPECT_EQ(station.promotions(), 0);
    EXPECT_EQ(station.hash("second").refCount(), 2);
}

// Promotion

TEST(ZebDataBlockReadThread, ARepeatedRequestPromotesTheEntryByOneWhateverItsPriority)
{
    ReaderStation station;
    station.reader().setRequestPromotionEnabled(true);
    station.request("head", s_Normal);
    station.request("promoted", s_Low);
    station.request("tail", s_Low);
    EXPECT_EQ(station.promotions(), 0) << "a first request is none";
    EXPECT_TRUE(station.actionWakes([&] { station.request("promoted", s_Low); }));
    EXPECT_THAT(station.list(), ElementsAre("1 head", "1 promoted", "2 tail"));
    station.request("promoted", s_High);
    station.request("promoted", s_Normal);
    station.request("promoted", s_Low);
    EXPECT_THAT(station.list(), ElementsAre("1 head", "-2 promoted", "2 tail"));
    EXPECT_EQ(station.promotions(), 4);
    EXPECT_EQ(station.hash("promoted").refCount(), 2);
}

TEST(ZebDataBlockReadThread, TheHeadIsNotPromotedAndDoesNotWakeTheThread)
{
    ReaderStation station;
    station.reader().setRequestPromotionEnabled(true);
    station.request("head", s_Low);
    station.request("tail", s_Low);
    EXPECT_FALSE(station.actionWakes([&] { station.request("head", s_High); }));
    EXPECT_THAT(station.list(), ElementsAre("2 head", "2 tail"));
    EXPECT_EQ(station.promotions(), 1) << "the attempt counts";
}

TEST(ZebDataBlockReadThread, AHashThatIsPreloadingAndNotListedIsNotPromoted)
{
    ReaderStation station;
    station.reader().setRequestPromotionEnabled(true);
    station.request("listed", s_Normal);
    station.hash("taken").setPreloading(true);
    EXPECT_FALSE(station.actionWakes([&] { station.request("taken", s_High); }));
    EXPECT_THAT(station.list(), ElementsAre("1 listed"));
    EXPECT_EQ(station.promotions(), 1);
    EXPECT_TRUE(station.hash("taken").isPreloading());
}

TEST(ZebDataBlockReadThread, TheListIsSortedAtEachHundredthAttempt)
{
    ReaderStation station;
    station.reader().setRequestPromotionEnabled(true);
    station.request("first", s_Normal);
    station.request("second", s_Normal);
    station.request("second", 99);
    EXPECT_THAT(station.list(), ElementsAre("1 first", "-98 second"));
    station.request("second", 1);
    EXPECT_THAT(station.list(), ElementsAre("-99 second", "1 first"));
    // 99 more attempts on what is second now, and one that sorts.
    station.request("first", 99);
    EXPECT_THAT(station.list(), ElementsAre("-99 second", "-98 first"));
    station.request("third", s_Normal);
    station.request("first", 1);
    EXPECT_THAT(station.list(), ElementsAre("-99 second", "-99 first", "1 third"));
    EXPECT_EQ(station.promotions(), 200);
}

TEST(ZebDataBlockReadThread, AHundredthAttemptThatPromotesNothingDoesNotSort)
{
    ReaderStation station;
    station.reader().setRequestPromotionEnabled(true);
    station.request("head", s_Normal);
    station.request("promoted", s_Normal);
    station.request("promoted", 99);
    station.request("head", 1);
    EXPECT_EQ(station.promotions(), 100);
    EXPECT_THAT(station.list(), ElementsAre("1 head", "-98 promoted"));
    station.request("promoted", 99);
    EXPECT_THAT(station.list(), ElementsAre("1 head", "-197 promoted"));
    station.request("promoted", 1);
    EXPECT_THAT(station.list(), ElementsAre("-198 promoted", "1 head"));
}

// Dropping requests

TEST(ZebDataBlockReadThread, KillingRequestsKeepsTheirHashesMarked)
{
    ReaderStation station;
    for (const bool promotion : {false, true}) {
        station.reader().setRequestPromotionEnabled(promotion);
        station.hash("killed").setPreloading(false);
        station.request("killed");
        station.request("also killed");
        station.reader().killRequests();
        EXPECT_EQ(station.reader().requests(), 0);
        EXPECT_EQ(station.hash("killed").refCount(), 1) << "its reference is dropped";
        EXPECT_TRUE(station.hash("killed").isPreloading());
        EXPECT_TRUE(station.hash("also killed").isPreloading());
        station.request("killed");
        EXPECT_THAT(station.list(), IsEmpty()) << "refused, since it is still marked as preloading";
    }
    EXPECT_EQ(station.reader().requestsHandled(), 0);
}

TEST(ZebDataBlockReadThread, KillingRequestsDeletesHashesThatOnlyTheListHolds)
{
    ReaderStation station;
    const int before = ZebDataHash::hashCount();
    station.reader().request(
        ZebHashManager::instance().getHash(QByteArray("held by the list alone")).data(), s_Normal);
    EXPECT_EQ(ZebDataHash::hashCount(), before + 1);
    station.reader().killRequests();
    EXPECT_EQ(ZebDataHash::hashCount(), before);
}

TEST(ZebDataBlockReadThread, AKilledRequestIsAcceptedAgainOnceTheBlockWasLoaded)
{
    TemporaryStore store;
    const QByteArray plain("killed and loaded");
    const ZebDataReference reference = manager().addBlock(plain, ZebModifyAccessor::Cached, true);
    manager().flush();
    manager().freeAllBlocks();
    ReaderStation station(store.roots().first());
    station.request(plain.toStdString());
    station.reader().killRequests();
    station.request(plain.toStdString());
    EXPECT_THAT(station.list(), IsEmpty());
    EXPECT_FALSE(reference.constAccessor().isNull());
    EXPECT_FALSE(reference.hashPtr()->isPreloading());
    station.request(plain.toStdString());
    EXPECT_THAT(station.list(), SizeIs(1));
}

// The thread

TEST(ZebDataBlockReadThread, LoadsEveryPreloadedBlock)
{
    constexpr int count = 60;
    TemporaryStore store;
    std::vector<ZebDataReference> references;
    qint64 bytes = 0;
    for (int i = 0; i < count; ++i) {
        const QByteArray plain = BlockFiles::text(20 + i);
        bytes += plain.size();
        references.push_back(manager().addBlock(plain, ZebModifyAccessor::Cached, true));
    }
    manager().flush();
    manager().freeAllBlocks();
    for (const ZebDataReference& reference : references) {
        ASSERT_FALSE(reference.isInMemory());
        reference.preload();
    }
    const auto isPreloading = [](const ZebDataReference& reference) {
        return reference.hashPtr()->isPreloading();
    };
    constexpr int promisedMs = 10000;
    EXPECT_TRUE(waitUntil(
        [&] {
            return manager().liveBytes() == bytes &&
                   std::none_of(references.begin(), references.end(), isPreloading);
        },
        promisedMs));
    for (int i = 0; i < count; ++i) {
        ASSERT_TRUE(references[static_cast<size_t>(i)].isInMemory());
        const ZebConstAccessor accessor = references[static_cast<size_t>(i)].constAccessor();
        ASSERT_EQ(bytesOf(accessor), BlockFiles::text(20 + i));
    }
    EXPECT_EQ(managersReader().requestsHandled(), count);
    EXPECT_EQ(managersReader().bytesRead(), bytes);
    EXPECT_EQ(managersReader().requests(), 0);
}

TEST(ZebDataBlockReadThread, APreloadThatFailsCountsAsHandledAndStaysMarked)
{
    TemporaryStore store;
    const FlushProbe probe;
    ReaderStation station(store.roots().first());
    station.request("missing");
    station.request("missing too");
    const int before = store.messages().debugLines().size();
    station.start();
    EXPECT_TRUE(
        station.waitFor([&] { return store.messages().debugLines().size() == before + 2; }));
    station.stop();
    EXPECT_EQ(station.reader().requestsHandled(), 2);
    EXPECT_EQ(station.reader().bytesRead(), 0);
    EXPECT_EQ(probe.flushes(), 4) << "two for each";
    EXPECT_EQ(manager().liveBytes(), 0);
    EXPECT_TRUE(station.hash("missing").isPreloading());
    EXPECT_EQ(station.hash("missing").refCount(), 1);
    station.request("missing");
    EXPECT_EQ(station.reader().requests(), 0) << "refused, since it is still marked as preloading";
}

TEST(ZebDataBlockReadThread, SkipsANullHash)
{
    TemporaryStore store;
    const FlushProbe probe;
    ReaderStation station;
    station.requests().insert(0, ZebSmartPointer<ZebDataHash>());
    const int before = store.messages().debugLines().size();
    station.start();
    EXPECT_TRUE(station.waitFor([&] { return station.reader().requestsHandled() == 1; }));
    station.stop();
    EXPECT_EQ(store.messages().debugLines().size(), before);
    EXPECT_EQ(probe.flushes(), 0);
}

TEST(ZebDataBlockReadThread, FlushWaitsForTheListAndNotForTheCurrentLoad)
{
    TemporaryStore store;
    // Outlives the reader's thread, which waits for a point until the end.
    SequencePoints points;
    FlushProbe probe;
    ReaderStation station(store.roots().first());
    probe.onFlush([&](int number) {
        if (number == 1)
            points.wait("checked");
    });
    station.request("loading");
    station.request("listed");
    station.start();
    EXPECT_TRUE(station.waitFor([&] { return probe.flushes() == 1; }));
    QReadWriteLock& lock = ReaderInside::lock(station.reader());
    std::unique_ptr<BlockedThread> flush;
    int listedAtItsEnd = -1;
    // It asks for the list's length again and again while that is not 0.
    for (int look = 0; look < 3; ++look) {
        const QWriteLocker locker(&lock);
        if (!flush) {
            flush = std::make_unique<BlockedThread>([&] {
                station.reader().flush();
                listedAtItsEnd = station.reader().requests();
            });
        }
        EXPECT_TRUE(flush->waitsFor(lock)) << look;
    }
    station.reader().killRequests();
    EXPECT_TRUE(flush->ends());
    EXPECT_EQ(listedAtItsEnd, 0);
    EXPECT_EQ(probe.flushes(), 1) << "the load has not ended";
    points.reached("checked");
}

TEST(ZebDataBlockReadThread, FlushAndClosingDownWakeTheThread)
{
    ReaderStation station;
    EXPECT_TRUE(station.actionWakes([&] { station.reader().flush(); }));
    EXPECT_TRUE(station.actionWakes([&] { station.reader().closeDown(); }));
}

TEST(ZebDataBlockReadThread, WakingTheThreadBetweenTwoWaitsCountsForTheNext)
{
    // Each reader is asked to end before its first wait. A missed wake-up costs a whole wait.
    constexpr int readers = 10;
    constexpr int waitMs = 1000;
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < readers; ++i) {
        ReaderStation station;
        station.reader().closeDown();
        station.start();
        EXPECT_TRUE(station.reader().wait(20000));
    }
    EXPECT_LT(timer.elapsed(), readers * waitMs / 2);
}

TEST(ZebDataBlockReadThread, ARequestThatNothingAnnouncesIsFoundAfterTheLimitedWait)
{
    const TemporaryStore store;
    ReaderStation station;
    // It is in its first wait, or about to be.
    station.start();
    ASSERT_TRUE(waitUntil([&station] { return station.reader().isRunning(); }));
    {
        const QWriteLocker locker(&ReaderInside::lock(station.reader()));
        station.requests().insert(s_Normal, &station.hash("a"));
    }
    // No wake-up came with it; the thread's own wait is limited.
    EXPECT_TRUE(waitUntil([&station] { return station.reader().requestsHandled() == 1; }));
}

TEST(ZebDataBlockReadThread, ClosesDownWhenItsListIsEmpty)
{
    TemporaryStore store;
    const FlushProbe probe;
    ReaderStation station(store.roots().first());
    station.start();
    for (const char* const name : {"a", "b", "c"})
        station.request(name);
    station.reader().closeDown();
    EXPECT_EQ(station.reader().requests(), 0);
    EXPECT_TRUE(station.waitFor([&] { return station.reader().isFinished(); }));
    EXPECT_EQ(station.reader().requestsHandled(), 3);
}

TEST(ZebDataBlockReadThread, AThreadThatIsAskedToEndDropsItsRequests)
{
    ReaderStation station;
    station.request("listed");
    ReaderInside::exit(station.reader()) = true;
    station.start();
    EXPECT_TRUE(station.waitFor([&] { return station.reader().isFinished(); }));
    EXPECT_EQ(station.reader().requests(), 0);
    EXPECT_EQ(station.reader().requestsHandled(), 0);
    EXPECT_EQ(station.hash("listed").refCount(), 1);
    EXPECT_TRUE(station.hash("listed").isPreloading());
}
