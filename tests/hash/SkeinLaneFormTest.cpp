#include "hash/SkeinLaneForm.h"

#include "support/LaneForms.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using ZebSkein::SkeinLaneForm;
using ZebSkein::SkeinLaneSet;
using ZebSkein::Word;

constexpr std::size_t s_BlockBytes = 64;
constexpr std::size_t s_Lanes = SkeinLaneSet::s_MostLanes;

// A set with different words everywhere, and separate data for each lane.
struct RandomSet
{
    RandomSet(std::mt19937_64& random, std::size_t blockCount)
    {
        for (Word(&row)[s_Lanes] : m_Set.chain)
            std::generate(std::begin(row), std::end(row), std::ref(random));
        for (std::size_t lane = 0; lane < s_Lanes; ++lane) {
            m_Set.position[lane] = random() % 100000;
            m_Set.flags[lane] = ZebSkein::s_TypeMessage | (random() & ZebSkein::s_FlagFirst) |
                                (random() & ZebSkein::s_FlagFinal);
            m_Set.bytesPerBlock[lane] = 1 + random() % s_BlockBytes;
            // Each buffer ends where the blocks end, and begins at a different alignment.
            m_Bytes.emplace_back(lane + blockCount * s_BlockBytes);
            for (unsigned char& byte : m_Bytes.back())
                byte = static_cast<unsigned char>(random() & 0xFF);
            m_Set.data[lane] = m_Bytes.back().data() + lane;
        }
    }

    SkeinLaneSet m_Set = {};
    std::vector<std::vector<unsigned char>> m_Bytes;
};

// The result of one lane by the code for one message.
std::vector<Word> chainAlone(const SkeinLaneSet& set, std::size_t lane, std::size_t blockCount)
{
    std::vector<Word> chain;
    for (const Word(&row)[s_Lanes] : set.chain)
        chain.push_back(row[lane]);
    ZebSkein::Tweak tweak = {set.position[lane], set.flags[lane]};
    ZebSkein::processBlocks512(chain.data(), tweak, set.data[lane], blockCount,
                               set.bytesPerBlock[lane]);
    return chain;
}

std::vector<Word> column(const SkeinLaneSet& set, std::size_t lane)
{
    std::vector<Word> words;
    for (const Word(&row)[s_Lanes] : set.chain)
        words.push_back(row[lane]);
    return words;
}

} // namespace

TEST(SkeinLaneForm, ScalarIsAlwaysAvailableAndFirst)
{
    const std::vector<SkeinLaneForm>& forms = SkeinLaneForm::available();
    ASSERT_FALSE(forms.empty());
    EXPECT_STREQ(forms.front().name, SkeinLaneForm::scalar().name);
    EXPECT_EQ(SkeinLaneForm::scalar().lanes, 1U);
    EXPECT_EQ(SkeinLaneForm::scalar().absorb, nullptr);
    EXPECT_EQ(&SkeinLaneForm::best(), &forms.back());
}

TEST(SkeinLaneForm, EveryFormButScalarNeedsSeveralInputs)
{
    const std::vector<SkeinLaneForm>& forms = SkeinLaneForm::available();
    for (std::size_t i = 1; i < forms.size(); ++i) {
        EXPECT_GT(forms[i].lanes, forms[i - 1].lanes);
        EXPECT_LE(forms[i].lanes, s_Lanes);
        EXPECT_GT(forms[i].fewest, 1U);
        EXPECT_LE(forms[i].fewest, forms[i].lanes);
        EXPECT_NE(forms[i].absorb, nullptr);
    }
}

TEST(SkeinLaneForm, UsesWhatTheProcessorSupports)
{
    std::vector<std::string> expected = {"scalar"};
#if defined(ZEB_SKEIN_HAS_VECTORS) && defined(__x86_64__)
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx2"))
        expected.emplace_back("avx2");
    if (__builtin_cpu_supports("avx512f"))
        expected.emplace_back("avx512");
#endif
    std::vector<std::string> names;
    for (const SkeinLaneForm& form : SkeinLaneForm::available())
        names.emplace_back(form.name);
    EXPECT_EQ(names, expected);
}

TEST(SkeinLaneForm, EveryLaneMatchesTheCodeForOneMessage)
{
    std::mt19937_64 random(1);
    for (const SkeinLaneForm& form : LaneForms::all()) {
        if (form.absorb == nullptr)
            continue;
        for (const std::size_t blockCount : {0U, 1U, 2U, 3U, 17U}) {
            RandomSet work(random, blockCount);
            const SkeinLaneSet before = work.m_Set;
            form.absorb(work.m_Set, blockCount);
            for (std::size_t lane = 0; lane < form.lanes; ++lane) {
                EXPECT_EQ(column(work.m_Set, lane), chainAlone(before, lane, blockCount))
                    << form.name << ", lane " << lane << ", " << blockCount << " blocks";
            }
        }
    }
}

TEST(SkeinLaneForm, OnlyTheChainsOfItsLanesChange)
{
    std::mt19937_64 random(2);
    for (const SkeinLaneForm& form : LaneForms::all()) {
        if (form.absorb == nullptr)
            continue;
        RandomSet work(random, 2);
        const SkeinLaneSet before = work.m_Set;
        form.absorb(work.m_Set, 2);
        for (std::size_t lane = form.lanes; lane < s_Lanes; ++lane)
            EXPECT_EQ(column(work.m_Set, lane), column(before, lane)) << form.name;
        for (std::size_t lane = 0; lane < s_Lanes; ++lane) {
            EXPECT_EQ(work.m_Set.position[lane], before.position[lane]) << form.name;
            EXPECT_EQ(work.m_Set.flags[lane], before.flags[lane]) << form.name;
            EXPECT_EQ(work.m_Set.bytesPerBlock[lane], before.bytesPerBlock[lane]) << form.name;
            EXPECT_EQ(work.m_Set.data[lane], before.data[lane]) << form.name;
        }
    }
}
