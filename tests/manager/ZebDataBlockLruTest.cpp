#include "manager/ZebDataBlockLru.h"

#include "support/BlockedThread.h"
#include "support/LruInside.h"

#include <QWriteLocker>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <list>
#include <random>
#include <thread>
#include <vector>

using LruInside::newestToOldest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using Order = std::vector<ZebDataHash*>;
// The list never dereferences the hashes that it keeps.
ZebDataHash* key(quintptr number)
{
    return reinterpret_cast<ZebDataHash*>(number * 64);
}

// Both directions of the list, both ends and the side table must agree.
void expectConsistent(const ZebDataBlockLru& lru)
{
    const Order forward = newestToOldest(lru);
    Order backward = LruInside::oldestToNewest(lru);
    std::reverse(backward.begin(), backward.end());
    ASSERT_EQ(forward, backward);

    std::size_t listed = 0;
    for (const auto& [hash, node] : LruInside::items(lru)) {
        if (!node)
            continue;
        ++listed;
        ASSERT_EQ(hash, node->m_Hash);
        ASSERT_EQ(std::count(forward.begin(), forward.end(), hash), 1);
    }
    ASSERT_EQ(listed, forward.size());
    ASSERT_EQ(static_cast<std::size_t>(lru.count()), forward.size());
    ASSERT_EQ(lru.oldest(), forward.empty() ? nullptr : forward.back());
}

void removeLocked(ZebDataBlockLru& lru, ZebDataHash* hash)
{
    const QWriteLocker locker(&lru.lock());
    lru.remove(hash);
}

void parkLocked(ZebDataBlockLru& lru, ZebDataHash* hash)
{
    const QWriteLocker locker(&lru.lock());
    lru.park(hash);
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

} // namespace

TEST(ZebDataBlockLru, ANewListIsEmptyAtBothEnds)
{
    const ZebDataBlockLru lru;
    EXPECT_EQ(lru.count(), 0);
    EXPECT_FALSE(lru.contains(key(1)));
    EXPECT_EQ(LruInside::newest(lru), nullptr);
    EXPECT_EQ(LruInside::oldest(lru), nullptr);
    EXPECT_EQ(lru.oldest(), nullptr);
}

TEST(ZebDataBlockLru, TheFirstHashIsNewestAndOldest)
{
    ZebDataBlockLru lru;
    lru.add(key(1));
    ASSERT_NE(LruInside::newest(lru), nullptr);
    EXPECT_EQ(LruInside::newest(lru), LruInside::oldest(lru));
    EXPECT_EQ(lru.oldest(), key(1));
    EXPECT_EQ(LruInside::newest(lru)->m_Older, nullptr);
    EXPECT_EQ(LruInside::newest(lru)->m_Newer, nullptr);
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
    const ZebDataBlockLruNode* const node = LruInside::oldest(lru);
    const int nodes = m_LruNodeCount.loadRelaxed();
    lru.add(key(1));
    lru.add(key(2));
    lru.add(key(3));
    EXPECT_THAT(newestToOldest(lru), ElementsAre(key(3), key(2), key(1)));
    EXPECT_EQ(LruInside::oldest(lru), node);
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
    const ZebDataBlockLruNode* const node = LruInside::newest(lru);
    lru.touch(key(1));
    EXPECT_EQ(LruInside::newest(lru), node);
    EXPECT_EQ(LruInside::oldest(lru), node);
    expectConsistent(lru);
}

TEST(ZebDataBlockLru, TouchKeepsTheNodeObject)
{
    ZebDataBlockLru lru;
    addAll(lru, {key(1), key(2)});
    const ZebDataBlockLruNode* const node = LruInside::oldest(lru);
    const int nodes = m_LruNodeCount.loadRelaxed();
    lru.touch(key(1));
    EXPECT_EQ(LruInside::newest(lru), node);
    EXPECT_EQ(node->m_Hash, key(1));
    EXPECT_EQ(&*LruInside::items(lru).at(key(1)), node);
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
    EXPECT_EQ(LruInside::newest(lru), nullptr);
    EXPECT_EQ(LruInside::oldest(lru), nullptr);
    EXPECT_EQ(lru.count(), 0);
    expectConsistent(lru);
}

TEST(ZebDataBlockLru, RemovingTheNewestMovesTheNewestEnd)
{
    ZebDataBlockLru lru;
    addAll(lru, {key(1), key(2), key(3)});
    removeLocked(lru, key(3));
    EXPECT_THAT(newestToOldest(lru), ElementsAre(key(2), key(1)));
    EXPECT_EQ(LruInside::newest(lru)->m_Newer, nullptr);
    expectConsistent(lru);
}

TEST(ZebDataBlockLru, RemovingTheOldestMovesTheOldestEnd)
{
    ZebDataBlockLru lru;
    addAll(lru, {key(1), key(2), key(3)});
    removeLocked(lru, key(1));
    EXPECT_THAT(newestToOldest(lru), ElementsAre(key(3), key(2)));
    EXPECT_EQ(LruInside::oldest(lru)->m_Older, nullptr);
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

TEST(ZebDataBlockLru, AParkedHashKeepsItsPlaceUntilItIsRemoved)
{
    ZebDataBlockLru lru;
    const int nodes = m_LruNodeCount.loadRelaxed();
    addAll(lru, {key(1), key(2), key(3)});
    parkLocked(lru, key(2));
    EXPECT_FALSE(lru.contains(key(2)));
    EXPECT_THAT(newestToOldest(lru), ElementsAre(key(3), key(1)));
    EXPECT_EQ(m_LruNodeCount.loadRelaxed(), nodes + 2);
    EXPECT_EQ(LruInside::items(lru).count(key(2)), 1U);
    lru.touch(key(2));
    parkLocked(lru, key(2));
    parkLocked(lru, key(9));
    EXPECT_THAT(newestToOldest(lru), ElementsAre(key(3), key(1)));
    lru.add(key(2));
    EXPECT_THAT(newestToOldest(lru), ElementsAre(key(2), key(3), key(1)));
    parkLocked(lru, key(1));
    removeLocked(lru, key(1));
    EXPECT_EQ(LruInside::items(lru).count(key(1)), 0U);
    EXPECT_THAT(newestToOldest(lru), ElementsAre(key(2), key(3)));
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
    EXPECT_EQ(LruInside::newest(lru), nullptr);
    EXPECT_EQ(LruInside::oldest(lru), nullptr);
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

TEST(ZebDataBlockLru, RandomOperationsAgreeWithAPlainList)
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

TEST(ZebDataBlockLru, ContainsWaitsForAWriterAndCountDoesNot)
{
    ZebDataBlockLru lru;
    lru.add(key(1));
    EXPECT_TRUE(waitsForWriter(lru.lock(), [&] { EXPECT_TRUE(lru.contains(key(1))); }));
    EXPECT_FALSE(waitsForWriter(lru.lock(), [&] { EXPECT_EQ(lru.count(), 1); }));
}

TEST(ZebDataBlockLru, ReadOutsShareTheLockWithReaders)
{
    ZebDataBlockLru lru;
    lru.add(key(1));
    EXPECT_FALSE(waitsForReader(lru.lock(), [&] { EXPECT_TRUE(lru.contains(key(1))); }));
    EXPECT_FALSE(waitsForReader(lru.lock(), [&] { EXPECT_EQ(lru.count(), 1); }));
}

TEST(ZebDataBlockLru, AddAndTouchTakeTheWriteLockThemselves)
{
    ZebDataBlockLru lru;
    addAll(lru, {key(1), key(2)});
    EXPECT_TRUE(waitsForReader(lru.lock(), [&] { lru.add(key(3)); }));
    EXPECT_TRUE(waitsForReader(lru.lock(), [&] { lru.touch(key(1)); }));
    EXPECT_TRUE(waitsForWriter(lru.lock(), [&] { lru.add(key(4)); }));
    EXPECT_TRUE(waitsForWriter(lru.lock(), [&] { lru.touch(key(2)); }));
    EXPECT_THAT(newestToOldest(lru), ElementsAre(key(2), key(4), key(1), key(3)));
}

TEST(ZebDataBlockLru, RemoveAndClearAndOldestTakeNoLock)
{
    ZebDataBlockLru lru;
    addAll(lru, {key(1), key(2), key(3)});
    // The lock is not recursive: an operation that took it as well would never return.
    EXPECT_FALSE(waitsForWriter(lru.lock(), [&] { lru.remove(key(2)); }));
    EXPECT_FALSE(waitsForWriter(lru.lock(), [&] { EXPECT_EQ(lru.oldest(), key(1)); }));
    EXPECT_FALSE(waitsForWriter(lru.lock(), [&] { lru.clear(); }));
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

TEST(ZebDataBlockLru, ReadersMayReadWhileOtherThreadsChangeTheList)
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
