#include "manager/ZebDataBlockLru.h"

#include "hash/ZebDataHash.h"

#include "support/LruInside.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <list>
#include <random>
#include <vector>

using LruInside::newestToOldest;
using ::testing::ElementsAre;

namespace {

using Order = std::vector<ZebDataHash*>;
// One of a hundred hashes, which outlive every list.
ZebDataHash* key(quintptr number)
{
    static std::array<ZebDataHash, 100> hashes;
    return &hashes.at(number);
}

// Both directions of the list, both ends, the marks and the count must agree.
void expectConsistent(const ZebDataBlockLru& lru)
{
    const Order forward = newestToOldest(lru);
    Order backward = LruInside::oldestToNewest(lru);
    std::reverse(backward.begin(), backward.end());
    ASSERT_EQ(forward, backward);

    for (ZebDataHash* const hash : forward)
        ASSERT_TRUE(lru.contains(hash));
    ASSERT_EQ(static_cast<std::size_t>(lru.count()), forward.size());
    ASSERT_EQ(LruInside::oldest(lru), forward.empty() ? nullptr : forward.back());
}

void addAll(ZebDataBlockLru& lru, const Order& oldestFirst)
{
    for (ZebDataHash* const hash : oldestFirst)
        lru.add(hash);
}

} // namespace

TEST(ZebDataBlockLru, ANewListIsEmptyAtBothEnds)
{
    ZebDataBlockLru lru;
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
    EXPECT_EQ(LruInside::older(key(1)), nullptr);
    EXPECT_EQ(LruInside::newer(key(1)), nullptr);
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
    const ZebDataHash* const node = LruInside::oldest(lru);
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
    const ZebDataHash* const node = LruInside::newest(lru);
    lru.touch(key(1));
    EXPECT_EQ(LruInside::newest(lru), node);
    EXPECT_EQ(LruInside::oldest(lru), node);
    expectConsistent(lru);
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
    lru.remove(key(1));
    EXPECT_EQ(LruInside::newest(lru), nullptr);
    EXPECT_EQ(LruInside::oldest(lru), nullptr);
    EXPECT_EQ(lru.count(), 0);
    expectConsistent(lru);
}

TEST(ZebDataBlockLru, RemovingTheNewestMovesTheNewestEnd)
{
    ZebDataBlockLru lru;
    addAll(lru, {key(1), key(2), key(3)});
    lru.remove(key(3));
    EXPECT_THAT(newestToOldest(lru), ElementsAre(key(2), key(1)));
    EXPECT_EQ(LruInside::newer(LruInside::newest(lru)), nullptr);
    expectConsistent(lru);
}

TEST(ZebDataBlockLru, RemovingTheOldestMovesTheOldestEnd)
{
    ZebDataBlockLru lru;
    addAll(lru, {key(1), key(2), key(3)});
    lru.remove(key(1));
    EXPECT_THAT(newestToOldest(lru), ElementsAre(key(3), key(2)));
    EXPECT_EQ(LruInside::older(LruInside::oldest(lru)), nullptr);
    expectConsistent(lru);
}

TEST(ZebDataBlockLru, RemovingFromTheMiddleJoinsTheNeighbours)
{
    ZebDataBlockLru lru;
    addAll(lru, {key(1), key(2), key(3)});
    lru.remove(key(2));
    EXPECT_THAT(newestToOldest(lru), ElementsAre(key(3), key(1)));
    expectConsistent(lru);
}

TEST(ZebDataBlockLru, RemovingAnUnlistedHashChangesNothing)
{
    ZebDataBlockLru lru;
    lru.remove(key(9));
    addAll(lru, {key(1), key(2)});
    const int nodes = m_LruNodeCount.loadRelaxed();
    lru.remove(key(9));
    EXPECT_THAT(newestToOldest(lru), ElementsAre(key(2), key(1)));
    EXPECT_EQ(m_LruNodeCount.loadRelaxed(), nodes);
    expectConsistent(lru);
}

TEST(ZebDataBlockLru, ARemovedHashCanBeListedAgainAsTheNewest)
{
    ZebDataBlockLru lru;
    addAll(lru, {key(1), key(2)});
    lru.remove(key(1));
    EXPECT_FALSE(lru.contains(key(1)));
    lru.add(key(1));
    EXPECT_THAT(newestToOldest(lru), ElementsAre(key(1), key(2)));
    expectConsistent(lru);
}

TEST(ZebDataBlockLru, ClearEmptiesTheList)
{
    ZebDataBlockLru lru;
    lru.clear();
    EXPECT_EQ(lru.count(), 0);
    addAll(lru, {key(1), key(2), key(3)});
    lru.clear();
    EXPECT_EQ(lru.count(), 0);
    EXPECT_FALSE(lru.contains(key(2)));
    EXPECT_EQ(LruInside::newest(lru), nullptr);
    EXPECT_EQ(LruInside::oldest(lru), nullptr);
    lru.add(key(2));
    EXPECT_THAT(newestToOldest(lru), ElementsAre(key(2)));
    expectConsistent(lru);
}

TEST(ZebDataBlockLru, TheNodeCountFollowsAllLists)
{
    const int before = m_LruNodeCount.loadRelaxed();
    {
        ZebDataBlockLru one;
        ZebDataBlockLru other;
        addAll(one, {key(1), key(2), key(3)});
        addAll(other, {key(6)});
        EXPECT_EQ(m_LruNodeCount.loadRelaxed(), before + 4);
        one.remove(key(2));
        EXPECT_EQ(m_LruNodeCount.loadRelaxed(), before + 3);
        one.clear();
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
            lru.remove(hash);
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
            lru.clear();
            model.clear();
        }
        ASSERT_EQ(newestToOldest(lru), Order(model.begin(), model.end())) << "step " << step;
        ASSERT_NO_FATAL_FAILURE(expectConsistent(lru)) << "step " << step;
        ASSERT_EQ(lru.count(), static_cast<int>(model.size()));
        ASSERT_EQ(lru.contains(hash), std::find(model.begin(), model.end(), hash) != model.end());
        ASSERT_EQ(m_LruNodeCount.loadRelaxed(), nodes + lru.count());
    }
}
