#include "tools/cache/BlockPlace.h"

#include "manager/ZebDataBlockManager.h"
#include "tools/cache/BlockName.h"
#include "tools/terminal/MessageFilter.h"

#include "tools/support/TemporaryTree.h"

#include <QString>
#include <QStringList>

#include <gtest/gtest.h>

#include <random>

namespace {

std::string nameOf(quint32 first, quint32 second, quint32 third)
{
    return std::to_string(first) + "-" + std::to_string(second) + "-" + std::to_string(third) +
           "-4-5-6-7-8-9-10-11-12-13-14-15-16";
}

} // namespace

TEST(BlockPlace, IsWhereTheStoreHasIt)
{
    MessageFilter::install(false);
    const TemporaryTree tree;
    std::mt19937 random(11);
    ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    for (const int rootCount : {1, 2, 3, 7}) {
        for (const int buckets : {1, 10, 1000}) {
            QStringList roots;
            for (int i = 0; i < rootCount; ++i)
                roots.append(QString::fromStdString(tree.path("r" + std::to_string(i))));
            manager.setup(roots, 1024 * 1024, buckets);
            int compared = 0;
            for (int i = 0; i < 400; ++i) {
                // First words of few digits, too, where the rule is at its oddest.
                const auto first = static_cast<quint32>(random() >> (random() % 32));
                const std::string text = nameOf(first, static_cast<quint32>(random() % 100), 3);
                const BlockPlace place =
                    BlockPlace::of(*BlockName::parse(text), rootCount, buckets);
                // The store ends the process there.
                if (place.m_Root < 0)
                    continue;
                EXPECT_EQ(manager.getBlockDestination("part", QString::fromStdString(text)),
                          roots[place.m_Root] + "/part/" + QString::number(place.m_Bucket) + "/" +
                              QString::fromStdString(text));
                ++compared;
            }
            EXPECT_GT(compared, 300);
            manager.cleanUp();
        }
    }
}

TEST(BlockPlace, ADashAmongTheFirstFourCharactersCountsAsMinusOne)
{
    const BlockName name = *BlockName::parse(nameOf(7, 30, 3));
    EXPECT_EQ(BlockPlace::of(name, 100, 10).m_Root, 7 - 1 + 3 + 0);
    EXPECT_EQ(BlockPlace::of(name, 100, 10).m_Bucket, 7);
}

TEST(BlockPlace, ASumBelowZeroLeadsToNoRoot)
{
    const BlockName name = *BlockName::parse(nameOf(0, 0, 3));
    EXPECT_EQ(BlockPlace::of(name, 3, 10).m_Root, -1);
    // The remainder is 0, which the store takes.
    EXPECT_EQ(BlockPlace::of(name, 2, 10).m_Root, 0);
}
