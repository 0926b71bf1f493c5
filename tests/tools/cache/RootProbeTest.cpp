#include "tools/cache/RootProbe.h"

#include "support/TemporaryTree.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include <sys/stat.h>

namespace {

std::set<std::string> unfit(const std::vector<std::string>& roots, qint64 space = 1)
{
    std::set<std::string> names;
    const RootProbe probe(roots, space);
    for (const RootProbe::Check& check : probe.checks()) {
        EXPECT_FALSE(check.m_Text.empty());
        if (!check.m_Fit)
            names.insert(check.m_Name);
    }
    return names;
}

class RootProbeTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_Mask = ::umask(022);
        m_Tree.directory("a");
        m_Tree.directory("b");
    }
    void TearDown() override { ::umask(m_Mask); }

    mode_t m_Mask = 0;
    TemporaryTree m_Tree;
};

using Names = std::set<std::string>;

} // namespace

TEST_F(RootProbeTest, GoodRootsAreFitAndStayEmpty)
{
    EXPECT_TRUE(RootProbe({m_Tree.path("a"), m_Tree.path("b")}, 1).isFit());
    EXPECT_TRUE(std::filesystem::is_empty(m_Tree.path("a")));
}

TEST_F(RootProbeTest, EachObstacleIsReported)
{
    m_Tree.file("file", "");
    EXPECT_EQ(unfit({m_Tree.path("missing")}), Names{"exists"});
    EXPECT_EQ(unfit({m_Tree.path("file")}), Names{"exists"});
    EXPECT_EQ(unfit({m_Tree.path("a"), m_Tree.path("missing")}), Names{"exists"});
    EXPECT_EQ(unfit({m_Tree.path("missing"), m_Tree.path("a")}), Names{"exists"});
    EXPECT_EQ(unfit({m_Tree.path("a")}, 1LL << 60), Names{"space"});
    EXPECT_EQ(unfit({m_Tree.path("a"), m_Tree.top()}), Names{"separate"});
    m_Tree.link("way", "a");
    EXPECT_EQ(unfit({m_Tree.path("a"), m_Tree.path("way")}), Names{"separate"});
    ASSERT_EQ(::chmod(m_Tree.path("b").c_str(), 0775), 0);
    EXPECT_EQ(unfit({m_Tree.path("b")}), Names{"permissions"});
    ::umask(0);
    EXPECT_EQ(unfit({m_Tree.path("a")}), Names{"umask"});
}

TEST_F(RootProbeTest, ADirectoryThatAcceptsNoFilesIsNotWritable)
{
    // No user may write there, not even the superuser.
    EXPECT_EQ(unfit({"/proc/self"}).count("writable"), 1U);
}
