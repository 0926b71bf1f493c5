#include "manager/ZebDataBlockLru.h"

#include "support/PrivateAccess.h"

#include <QSemaphore>
#include <QWriteLocker>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <list>
#include <random>
#include <thread>
#include <vector>

using LruItems = QHash<ZebDataHash*, ZebDataBlockLruNode*>;

ZEBTDX_ACCESS(LruItemsTag, ZebDataBlockLru, LruItems ZebDataBlockLru::*, m_Items)
ZEBTDX_ACCESS(LruNewestTag, ZebDataBlockLru, ZebDataBlockLruNode* ZebDataBlockLru::*, m_Newest)
ZEBTDX_ACCESS(LruOldestTag, ZebDataBlockLru, ZebDataBlockLruNode* ZebDataBlockLru::*, m_Oldest)

namespace {

using Order = std::vector<ZebDataHash*>;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// How long an operation is given to come through a lock that must hold it off.
constexpr int s_HeldOffMs = 100;
constexpr int s_DeadlineMs = 20000;

// The list never looks behind the addresses that it keeps.
ZebDataHash* key(quintptr number)
{
    return reinterpret_cast<ZebDataHash*>(number * 64);
}

ZebDataBlockLruNode* newestOf(const ZebDataBlockLru& lru)
{
    return lru.*privateMember(LruNewestTag());
}

ZebDataBlockLruNode* oldestOf(const ZebDataBlockLru& lru)
{
    return lru.*privateMember(LruOldestTag());
}

Order newestToOldest(const ZebDataBlockLru& lru)
{
    Order order;
    for (const auto* node = newestOf(lru); node != nullptr; node = node->m_Older)
        order.push_back(node->m_Hash);
    return order;
}

// Both directions of the list, both ends and the side table must tell the same.
void expectConsistent(const ZebDataBlockLru& lru)
{
    const Order forward = newestToOldest(lru);
    Order backward;
    for (const auto* node = oldestOf(lru); node != nullptr; node = node->m_Newer)
        backward.push_back(node->m_Hash);
    std::reverse(backward.begin(), backward.end());
    ASSERT_EQ(forward, backward);

    const LruItems& items = lru.*privateMember(LruItemsTag());
    ASSERT_EQ(static_cast<size_t>(items.size()), forward.size());
    for (auto item = items.cbegin(); item != items.cend(); ++item) {
        ASSERT_EQ(item.key(), item.value()->m_Hash);
        ASSERT_EQ(std::count(forward.begin(), forward.end(), item.key()), 1);
    }
    ASSERT_EQ(lru.oldest(), forward.empty() ? nullptr : forward.back());
}

void removeLocked(ZebDataBlockLru& lru, ZebDataHash* hash)
{
    const QWriteLocker locker(&lru.lock());
    lru.remove(hash);
}

void clearLocked(ZebDataBlockLru& lru)
{
    const QWriteLocker locker(&lru.lock());
    lru.clear();
}

void addAll(ZebDataBlockLru& lru, const Order& oldestFirst)
{
    for (ZebDataHash* const hash : oldestFirst)
        lru.add(hash);
}

enum class Hold
{
    ForReading,
    ForWriting
};

// Runs `operation` on another thread while this one holds the lock for at most `waitMs`. Returns
// whether it came through meanwhile; in any case it has ended on return.
bool runsUnder(const ZebDataBlockLru& lru, Hold hold, int waitMs,
               const std::function<void()>& operation)
{
    QSemaphore started;
    QSemaphore ended;
    if (hold == Hold::ForWriting)
        lru.lock().lockForWrite();
    else
        lru.lock().lockForRead();
    std::thread thread([&] {
        started.release();
        operation();
        ended.release();
    });
    started.acquire();
    const bool through = ended.tryAcquire(1, waitMs);
    lru.lock().unlock();
    if (!through) {
        EXPECT_TRUE(ended.tryAcquire(1, s_DeadlineMs));
    }
    thread.join();
    return through;
}

bool comesThrough(const ZebDataBlockLru& lru, Hold hold, const std::function<void()>& operation)
{
    return runsUnder(lru, hold, s_DeadlineMs, operation);
}

bool isHeldOff(const ZebDataBlockLru& lru, Hold hold, const std::function<void()>& operation)
{
    return !runsUnder(lru, hold, s_HeldOffMs, operation);
}

} // namespace

TEST(ZebDataBlockLru, ANewListIsEmptyAtBothEnds)
{
    const ZebDataBlockLru lru;
    EXPECT_EQ(lru.count(), 0);
    EXPECT_FALSE(lru.contains(key(1)));
    EXPECT_EQ(newestOf(lru), nullptr);
    EXPECT_EQ(oldestOf(lru), nullptr);
    EXPECT_EQ(lru.oldest(), nullptr);
}

TEST(ZebDataBlockLru, TheFirstHashIsNewestAndOldest)
{
    ZebDataBlockLru lru;
    lru.add(key(1));
    ASSERT_NE(newestOf(lru), nullptr);
    EXPECT_EQ(newestOf(lru), oldestOf(lru));
    EXPECT_EQ(lru.oldest(), key(1));
    EXPECT_EQ(newestOf(lru)->m_Older, nullptr);
    EXPECT_EQ(newestOf(lru)->m_Newer, nullptr);
    EXPECT_TRUE(lru.contains(key(1)));
    EXPECT_EQ(lru.count(), 1);
}

TEST(ZebDataBlockLru, EachNewHashIsTheNewest)
{
    ZebDataBlockLru lru;
    addAll(lru, {key(1), key(2), key(3)});
    EXPECT_THAT(newestToOldest(lru), ElementsAre(key(3), key(2), key(1)));
    EXPECT_EQ(lru.oldest(), key(1));
    EXPECT_EQ(lru.count(), 3);
    expectConsistent(lru);
}

TEST(ZebDataBlockLru, AddingAListedHashChangesNothing)
{
    ZebDataBlockLru lru;
    addAll(lru, {key(1), key(2), key(3)});
    const ZebDataBlockLruNode* const node = oldestOf(lru);
    const int nodes = m_LruNodeCount.loadRelaxed();
    lru.add(key(1));
    lru.add(key(2));
    lru.add(key(3));
    EXPECT_THAT(newestToOldest(lru), ElementsAre(key(3), key(2), key(1)));
    EXPECT_EQ(oldestOf(lru), node);
    EXPECT_EQ(m_LruNodeCount.loadRelaxed(), nodes);
    expectConsistent(lru);
}

TEST(ZebDataBlockLru, TouchMovesAHashFromAnyPlaceToTheNewestEnd)
{
    ZebDataBlockLru lru;
    addAll(lru, {key(1), key(2), key(3)});
    lru.touch(key(1));
    EXPECT_THAT(newestToOldest(lru), ElementsAre(key(1), key(3), key(2)));
    expectConsistent(lru);
    lru.touch(key(3));
    EXPECT_THAT(newestToOldest(lru), ElementsAre(key(3), key(1), key(2)));
    expectConsistent(lru);
    lru.touch(key(3));
    EXPECT_THAT(newestToOldest(lru), ElementsAre(key(3), key(1), key(2)));
    expectConsistent(lru);
}

TEST(ZebDataBlockLru, TouchOfTheOnlyHashLeavesItAlone)
{
    ZebDataBlockLru lru;
    lru.add(key(1));
    const ZebDataBlockLruNode* const node = newestOf(lru);
    lru.touch(key(1));
    EXPECT_EQ(newestOf(lru), node);
    EXPECT_EQ(oldestOf(lru), node);
    expectConsistent(lru);
}

TEST(ZebDataBlockLru, TouchKeepsTheNodeObject)
{
    ZebDataBlockLru lru;
    addAll(lru, {key(1), key(2)});
    ZebDataBlockLruNode* const node = oldestOf(lru);
    const int nodes = m_LruNodeCount.loadRelaxed();
    lru.touch(key(1));
    EXPECT_EQ(newestOf(lru), node);
    EXPECT_EQ(node->m_Hash, key(1));
    EXPECT_EQ((lru.*privateMember(LruItemsTag())).value(key(1)), node);
    EXPECT_EQ(m_LruNodeCount.loadRelaxed(), nodes);
}

TEST(ZebDataBlockLru, TouchOfAnUnlistedHashDoesNotListIt)
{
    ZebDataBlockLru lru;
    lru.touch(key(9));
    EXPECT_EQ(lru.count(), 0);
    addAll(lru, {key(1), key(2)});
    lru.touch(key(9));
    EXPECT_THAT(newestToOldest(lru), ElementsAre(key(2), key(1)));
    expectConsistent(lru);
}

TEST(ZebDataBlockLru, RemovingTheOnlyHashClearsBothEnds)
{
    ZebDataBlockLru lru;
    lru.add(key(1));
    removeLocked(lru, key(1));
    EXPECT_EQ(newestOf(lru), nullptr);
    EXPECT_EQ(oldestOf(lru), nullptr);
    EXPECT_EQ(lru.count(), 0);
    expectConsistent(lru);
}

TEST(ZebDataBlockLru, RemovingTheNewestMovesTheNewestEnd)
{
    ZebDataBlockLru lru;
    addAll(lru, {key(1), key(2), key(3)});
    removeLocked(lru, key(3));
    EXPECT_THAT(newestToOldest(lru), ElementsAre(key(2), key(1)));
    EXPECT_EQ(newestOf(lru)->m_Newer, nullptr);
    expectConsistent(lru);
}

TEST(ZebDataBlockLru, RemovingTheOldestMovesTheOldestEnd)
{
    ZebDataBlockLru lru;
    addAll(lru, {key(1), key(2), key(3)});
    removeLocked(lru, key(1));
    EXPECT_THAT(newestToOldest(lru), ElementsAre(key(3), key(2)));
    EXPECT_EQ(oldestOf(lru)->m_Older, nullptr);
    expectConsistent(lru);
}

TEST(ZebDataBlockLru, RemovingFromTheMiddleJoinsTheNeighbours)
{
    ZebDataBlockLru lru;
    addAll(lru, {key(1), key(2), key(3)});
    removeLocked(lru, key(2));
    EXPECT_THAT(newestToOldest(lru), ElementsAre(key(3), key(1)));
    expectConsistent(lru);
}

TEST(ZebDataBlockLru, RemovingAnUnlistedHashChangesNothing)
{
    ZebDataBlockLru lru;
    removeLocked(lru, key(9));
    addAll(lru, {key(1), key(2)});
    const int nodes = m_LruNodeCount.loadRelaxed();
    removeLocked(lru, key(9));
    EXPECT_THAT(newestToOldest(lru), ElementsAre(key(2), key(1)));
    EXPECT_EQ(m_LruNodeCount.loadRelaxed(), nodes);
    expectConsistent(lru);
}

TEST(ZebDataBlockLru, ARemovedHashCanBeListedAgainAsTheNewest)
{
    ZebDataBlockLru lru;
    addAll(lru, {key(1), key(2)});
    removeLocked(lru, key(1));
    EXPECT_FALSE(lru.contains(key(1)));
    lru.add(key(1));
    EXPECT_THAT(newestToOldest(lru), ElementsAre(key(1), key(2)));
    expectConsistent(lru);
}

TEST(ZebDataBlockLru, ClearEmptiesListAndTable)
{
    ZebDataBlockLru lru;
    clearLocked(lru);
    EXPECT_EQ(lru.count(), 0);
    addAll(lru, {key(1), key(2), key(3)});
    clearLocked(lru);
    EXPECT_EQ(lru.count(), 0);
    EXPECT_FALSE(lru.contains(key(2)));
    EXPECT_EQ(newestOf(lru), nullptr);
    EXPECT_EQ(oldestOf(lru), nullptr);
    lru.add(key(2));
    EXPECT_THAT(newestToOldest(lru), ElementsAre(key(2)));
    expectConsistent(lru);
}

TEST(ZebDataBlockLru, TheNodeCountFollowsTheNodesOfAllLists)
{
    const int before = m_LruNodeCount.loadRelaxed();
    {
        ZebDataBlockLru one;
        ZebDataBlockLru other;
        addAll(one, {key(1), key(2), key(3)});
        addAll(other, {key(1)});
        EXPECT_EQ(m_LruNodeCount.loadRelaxed(), before + 4);
        removeLocked(one, key(2));
        EXPECT_EQ(m_LruNodeCount.loadRelaxed(), before + 3);
        clearLocked(one);
        EXPECT_EQ(m_LruNodeCount.loadRelaxed(), before + 1);
        addAll(one, {key(4), key(5)});
        EXPECT_EQ(m_LruNodeCount.loadRelaxed(), before + 3);
    }
    EXPECT_EQ(m_LruNodeCount.loadRelaxed(), before);
}

TEST(ZebDataBlockLru, AnyCourseOfOperationsAgreesWithAPlainList)
{
    std::mt19937 random(20240117);
    ZebDataBlockLru lru;
    std::list<ZebDataHash*> model;
    const int nodes = m_LruNodeCount.loadRelaxed();
    for (int step = 0; step < 20000; ++step) {
        ZebDataHash* const hash = key(1 + random() % 40);
        const bool listed = std::find(model.begin(), model.end(), hash) != model.end();
        switch (random() % 8) {
        case 0:
        case 1:
        case 2:
            lru.add(hash);
            if (!listed)
                model.push_front(hash);
            break;
        case 3:
        case 4:
            removeLocked(lru, hash);
            model.remove(hash);
            break;
        default:
            lru.touch(hash);
            if (listed) {
                model.remove(hash);
                model.push_front(hash);
            }
        }
        if (random() % 2000 == 0) {
            clearLocked(lru);
            model.clear();
        }
        ASSERT_EQ(newestToOldest(lru), Order(model.begin(), model.end())) << "step " << step;
        ASSERT_NO_FATAL_FAILURE(expectConsistent(lru)) << "step " << step;
        ASSERT_EQ(lru.count(), static_cast<int>(model.size()));
        ASSERT_EQ(lru.contains(hash), std::find(model.begin(), model.end(), hash) != model.end());
        ASSERT_EQ(m_LruNodeCount.loadRelaxed(), nodes + lru.count());
    }
}

TEST(ZebDataBlockLru, ReadOutsWaitForAWriter)
{
    ZebDataBlockLru lru;
    lru.add(key(1));
    EXPECT_TRUE(isHeldOff(lru, Hold::ForWriting, [&] { EXPECT_TRUE(lru.contains(key(1))); }));
    EXPECT_TRUE(isHeldOff(lru, Hold::ForWriting, [&] { EXPECT_EQ(lru.count(), 1); }));
}

TEST(ZebDataBlockLru, ReadOutsShareTheLockWithReaders)
{
    ZebDataBlockLru lru;
    lru.add(key(1));
    EXPECT_TRUE(comesThrough(lru, Hold::ForReading, [&] { EXPECT_TRUE(lru.contains(key(1))); }));
    EXPECT_TRUE(comesThrough(lru, Hold::ForReading, [&] { EXPECT_EQ(lru.count(), 1); }));
}

TEST(ZebDataBlockLru, AddAndTouchTakeTheWriteLockThemselves)
{
    ZebDataBlockLru lru;
    addAll(lru, {key(1), key(2)});
    EXPECT_TRUE(isHeldOff(lru, Hold::ForReading, [&] { lru.add(key(3)); }));
    EXPECT_TRUE(isHeldOff(lru, Hold::ForReading, [&] { lru.touch(key(1)); }));
    EXPECT_TRUE(isHeldOff(lru, Hold::ForWriting, [&] { lru.add(key(4)); }));
    EXPECT_TRUE(isHeldOff(lru, Hold::ForWriting, [&] { lru.touch(key(2)); }));
    EXPECT_THAT(newestToOldest(lru), ElementsAre(key(2), key(4), key(1), key(3)));
}

TEST(ZebDataBlockLru, RemoveAndClearAndOldestLeaveTheLockToTheirCaller)
{
    ZebDataBlockLru lru;
    addAll(lru, {key(1), key(2), key(3)});
    // The lock is not recursive: an operation that took it as well would never come back.
    EXPECT_TRUE(comesThrough(lru, Hold::ForWriting, [&] { lru.remove(key(2)); }));
    EXPECT_TRUE(comesThrough(lru, Hold::ForWriting, [&] { EXPECT_EQ(lru.oldest(), key(1)); }));
    EXPECT_TRUE(comesThrough(lru, Hold::ForWriting, [&] { lru.clear(); }));
    EXPECT_THAT(newestToOldest(lru), IsEmpty());
}

TEST(ZebDataBlockLru, TheLockIsNotRecursive)
{
    const ZebDataBlockLru lru;
    ASSERT_TRUE(lru.lock().tryLockForWrite());
    EXPECT_FALSE(lru.lock().tryLockForWrite());
    EXPECT_FALSE(lru.lock().tryLockForRead());
    lru.lock().unlock();
}

TEST(ZebDataBlockLru, ReadersMayLookWhileOthersChangeTheList)
{
    ZebDataBlockLru lru;
    constexpr quintptr keys = 50;
    constexpr int rounds = 2000;
    std::atomic<bool> working{true};
    std::thread reader([&] {
        while (working.load()) {
            const int count = lru.count();
            EXPECT_GE(count, 0);
            EXPECT_LE(count, static_cast<int>(keys));
            lru.contains(key(7));
        }
    });
    std::vector<std::thread> writers;
    for (unsigned seed = 1; seed <= 2; ++seed) {
        writers.emplace_back([&lru, seed] {
            std::mt19937 random(seed);
            for (int round = 0; round < rounds; ++round) {
                lru.add(key(1 + random() % keys));
                lru.touch(key(1 + random() % keys));
                removeLocked(lru, key(1 + random() % keys));
            }
        });
    }
    for (std::thread& writer : writers)
        writer.join();
    working.store(false);
    reader.join();
    expectConsistent(lru);
}
