// Where the registry looks for digests, those included that a caller has chosen by their text.

#include "hash/ZebDigestMix.h"

#include "hash/ZebHashShards.h"
#include "hash/ZebHashTable.h"

#include <QtEndian>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <set>
#include <vector>

namespace {

using Words = std::array<quint32, 16>;

quint64 numberOf(const ZebDigestMix& mix, const Words& words)
{
    unsigned char bytes[64];
    for (int i = 0; i < 16; ++i)
        qToLittleEndian(words[static_cast<std::size_t>(i)], bytes + 4 * i);
    return mix({64, bytes, 64});
}

// The numbers of digests that differ as `choose` says.
std::vector<quint64> numbersOf(int count, const std::function<Words(quint32)>& choose)
{
    const ZebDigestMix mix;
    std::vector<quint64> numbers;
    numbers.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i)
        numbers.push_back(numberOf(mix, choose(static_cast<quint32>(i))));
    return numbers;
}

// The longest run of full slots when these numbers fill half of a table with linear probing.
std::size_t longestRun(const std::vector<quint64>& numbers)
{
    const std::size_t slots = 2 * numbers.size();
    std::vector<bool> isFull(slots, false);
    for (const quint64 number : numbers) {
        std::size_t i = number % slots;
        while (isFull[i])
            i = (i + 1) % slots;
        isFull[i] = true;
    }
    std::size_t longest = 0;
    std::size_t run = 0;
    for (std::size_t i = 0; i < 2 * slots && run <= slots; ++i) {
        run = isFull[i % slots] ? run + 1 : 0;
        longest = std::max(longest, run);
    }
    return longest;
}

void expectSpread(const std::vector<quint64>& numbers)
{
    ASSERT_EQ(std::set<quint64>(numbers.begin(), numbers.end()).size(), numbers.size());
    // Random numbers have runs of about 50 at this size.
    EXPECT_LT(longestRun(numbers), 300U);
    std::array<std::size_t, ZebHashShards::s_Count> ofShard{};
    for (const quint64 number : numbers)
        ++ofShard[number >> 58];
    for (const std::size_t count : ofShard) {
        EXPECT_GT(count, numbers.size() / ofShard.size() / 2);
        EXPECT_LT(count, numbers.size() / ofShard.size() * 2);
    }
}

constexpr int s_Digests = 1 << 14;

} // namespace

TEST(ZebDigestMix, EqualDigestsHaveEqualNumbers)
{
    const ZebDigestMix mix;
    const Words words = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    EXPECT_EQ(numberOf(mix, words), numberOf(mix, words));
    for (std::size_t i = 0; i < words.size(); ++i) {
        Words other = words;
        ++other[i];
        EXPECT_NE(numberOf(mix, other), numberOf(mix, words));
    }
}

TEST(ZebDigestMix, LengthAndBytesAfterTheLastWordCount)
{
    const ZebDigestMix mix;
    const unsigned char bytes[64] = {1, 2, 3, 4, 5, 6, 7, 8};
    std::set<quint64> numbers;
    for (const int length : {0, 1, 2, 3, 4, 5, 6, 7, 8, 32, 64})
        numbers.insert(mix({length, bytes, length}));
    EXPECT_EQ(numbers.size(), 11U);
    const unsigned char other[7] = {1, 2, 3, 4, 5, 6, 8};
    EXPECT_NE(mix({7, bytes, 7}), mix({7, other, 7}));
}

TEST(ZebDigestMix, ReadsNoByteAfterTheDigest)
{
    // Anything longer than a digest of a text form counts by its first bytes.
    const std::vector<unsigned char> bytes(128, 1);
    std::vector<unsigned char> longer(1000, 2);
    std::fill_n(longer.begin(), 128, static_cast<unsigned char>(1));
    const ZebDigestMix mix;
    EXPECT_EQ(mix({1000, longer.data(), 1000}), mix({128, bytes.data(), 128}));
}

TEST(ZebDigestMix, NoCallerKnowsTheNumbers)
{
    const Words words = {1, 2, 3};
    EXPECT_NE(numberOf(ZebDigestMix(), words), numberOf(ZebDigestMix(), words));
}

TEST(ZebDigestMix, ChosenDigestsSpreadOverShardsAndTables)
{
    for (const std::size_t word : {0U, 1U, 7U, 15U}) {
        expectSpread(numbersOf(s_Digests, [word](quint32 i) {
            Words words{};
            words[word] = i;
            return words;
        }));
        expectSpread(numbersOf(s_Digests, [word](quint32 i) {
            Words words{};
            words[word] = i << 16;
            return words;
        }));
    }
    // Equal first halves, and sums that stay the same.
    expectSpread(numbersOf(s_Digests, [](quint32 i) {
        Words words{};
        words[8] = i;
        words[9] = ~i;
        return words;
    }));
    expectSpread(numbersOf(s_Digests, [](quint32 i) {
        Words words{};
        words[2] = i & 0xFFU;
        words[3] = i >> 8;
        return words;
    }));
}
