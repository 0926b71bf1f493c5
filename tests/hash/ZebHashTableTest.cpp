#include "hash/ZebHashTable.h"

#include "hash/ZebDataHash.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <vector>

namespace {

// Hashes to put into tables. The table compares their addresses only.
std::vector<ZebDataHash> someHashes(std::size_t count)
{
    return std::vector<ZebDataHash>(count);
}

// The hash of this number, whichever it is.
ZebDataHash* findAny(const ZebHashTable& table, quint64 number)
{
    return table.find(number, [](const ZebDataHash&) { return true; });
}

bool contains(const ZebHashTable& table, quint64 number, const ZebDataHash* hash)
{
    return table.find(number, [hash](const ZebDataHash& found) { return &found == hash; }) == hash;
}

std::multiset<const ZebDataHash*> visited(const ZebHashTable& table)
{
    std::multiset<const ZebDataHash*> hashes;
    table.forEach([&hashes](const ZebDataHash* hash) { hashes.insert(hash); });
    return hashes;
}

} // namespace

TEST(ZebHashTable, AnEmptyTableHasNothing)
{
    ZebHashTable table;
    const ZebDataHash hash;
    EXPECT_EQ(table.size(), 0);
    EXPECT_EQ(findAny(table, 0), nullptr);
    EXPECT_FALSE(table.erase(0, &hash));
    EXPECT_TRUE(visited(table).empty());
}

TEST(ZebHashTable, TheCallerChoosesAmongHashesOfOneNumber)
{
    ZebHashTable table;
    std::vector<ZebDataHash> hashes = someHashes(3);
    for (ZebDataHash& hash : hashes)
        table.insert(7, &hash);
    EXPECT_EQ(table.size(), 3);
    for (const ZebDataHash& hash : hashes)
        EXPECT_TRUE(contains(table, 7, &hash));
    EXPECT_EQ(table.find(7, [](const ZebDataHash&) { return false; }), nullptr);
    EXPECT_EQ(findAny(table, 15), nullptr);
}

TEST(ZebHashTable, OnlyTheVeryHashIsErased)
{
    ZebHashTable table;
    std::vector<ZebDataHash> hashes = someHashes(3);
    table.insert(7, &hashes[0]);
    table.insert(7, &hashes[1]);
    EXPECT_FALSE(table.erase(7, &hashes[2]));
    EXPECT_TRUE(table.erase(7, &hashes[0]));
    EXPECT_FALSE(table.erase(7, &hashes[0]));
    EXPECT_EQ(findAny(table, 7), &hashes[1]);
    EXPECT_EQ(table.size(), 1);
}

TEST(ZebHashTable, EveryOrderOfErasingLeavesTheOthersInReach)
{
    // Numbers whose slots of a table of 8 are close together, around its end.
    const std::vector<quint64> numbers = {6, 14, 7, 0, 15, 8};
    std::vector<ZebDataHash> hashes = someHashes(numbers.size());
    std::vector<std::size_t> order = {0, 1, 2, 3, 4, 5};
    do {
        ZebHashTable table;
        for (std::size_t i = 0; i < numbers.size(); ++i)
            table.insert(numbers[i], &hashes[i]);
        for (std::size_t erased = 0; erased < order.size(); ++erased) {
            ASSERT_TRUE(table.erase(numbers[order[erased]], &hashes[order[erased]]));
            for (std::size_t i = 0; i < order.size(); ++i)
                ASSERT_EQ(contains(table, numbers[order[i]], &hashes[order[i]]), i > erased);
        }
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST(ZebHashTable, AgreesWithAMapWhileItGrowsAndShrinks)
{
    ZebHashTable table;
    std::vector<ZebDataHash> hashes = someHashes(5000);
    std::map<ZebDataHash*, quint64> wanted;
    std::minstd_rand random(1);
    // Grows to nearly all hashes and shrinks to few, several times.
    for (int i = 0; i < 100000; ++i) {
        const bool isGrowing = i / 12500 % 2 == 0;
        ZebDataHash* const hash = &hashes[random() % hashes.size()];
        const auto entry = wanted.find(hash);
        if (entry == wanted.end() && (isGrowing || random() % 16 == 0)) {
            // Few different numbers, so that runs form.
            const quint64 number = (quint64(random() % 3) << 40) + random() % 4096;
            table.insert(number, hash);
            wanted.emplace(hash, number);
        } else if (entry != wanted.end() && (!isGrowing || random() % 16 == 0)) {
            ASSERT_TRUE(table.erase(entry->second, hash));
            ASSERT_FALSE(contains(table, entry->second, hash));
            wanted.erase(entry);
        }
        ASSERT_EQ(table.size(), static_cast<int>(wanted.size()));
        if (i % 2500 == 0) {
            for (const auto& [held, number] : wanted)
                ASSERT_TRUE(contains(table, number, held));
        }
    }
    std::multiset<const ZebDataHash*> all;
    for (const auto& [hash, number] : wanted)
        all.insert(hash);
    EXPECT_EQ(visited(table), all);
}

TEST(ZebHashTable, AWalkSurvivesChangesOfTheTable)
{
    ZebHashTable table;
    std::vector<ZebDataHash> hashes = someHashes(1000);
    for (std::size_t i = 0; i < hashes.size(); ++i)
        table.insert(i, &hashes[i]);
    // With the first hash of the walk all others go, and the table shrinks.
    int steps = 0;
    table.forEach([&](const ZebDataHash* first) {
        ++steps;
        for (std::size_t i = 0; i < hashes.size(); ++i) {
            if (&hashes[i] != first)
                table.erase(i, &hashes[i]);
        }
    });
    EXPECT_EQ(steps, 1);
    // The table grows while it is walked over.
    std::multiset<const ZebDataHash*> met;
    table.forEach([&](const ZebDataHash* hash) {
        met.insert(hash);
        for (std::size_t i = 0; i < hashes.size(); ++i) {
            if (!contains(table, i, &hashes[i]))
                table.insert(i, &hashes[i]);
        }
    });
    EXPECT_GE(met.size(), 1U);
    EXPECT_EQ(visited(table).size(), hashes.size());
}
