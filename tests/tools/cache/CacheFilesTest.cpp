#include "tools/cache/CacheFiles.h"

#include "tools/cache/CacheWarnings.h"

#include "support/BlockBytes.h"
#include "support/TemporaryTree.h"
#include "tools/support/ErrorLines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

const std::string s_Name = "1234-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16";

class CacheFilesTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        for (const char* const name : {"r1", "r1/4", "r1/5", "r1/part", "r1/part/4"})
            m_Tree.directory(name);
        m_Place.m_Roots = {m_Tree.path("r1")};
        m_Place.m_SubCache.clear();
    }

    CacheFiles list(bool all) { return {m_Place, all, m_Errors.report(), m_Warnings}; }

    TemporaryTree m_Tree;
    ErrorLines m_Errors;
    CacheWarnings m_Warnings{m_Errors.report()};
    StorePlace m_Place;
};

} // namespace

TEST_F(CacheFilesTest, ListsPathsAndWhetherAFileIsInPlace)
{
    m_Tree.file("r1/4/" + s_Name, "123");
    m_Tree.file("r1/5/" + s_Name, "12345");
    m_Tree.file("r1/part/4/" + s_Name, "1");
    const CacheFiles files = list(true);
    ASSERT_EQ(files.files().size(), 3U);
    EXPECT_EQ(files.pathOf(files.files()[0]), m_Tree.path("r1/4/" + s_Name));
    EXPECT_EQ(files.pathOf(files.files()[2]), m_Tree.path("r1/part/4/" + s_Name));
    EXPECT_TRUE(files.isInPlace(files.files()[0]));
    EXPECT_FALSE(files.isInPlace(files.files()[1]));
    EXPECT_TRUE(files.isInPlace(files.files()[2]));
    EXPECT_EQ(list(false).files().size(), 2U) << "the unnamed sub-cache alone";
    m_Place.m_SubCache = "part";
    EXPECT_EQ(list(false).files().size(), 1U);
}

TEST_F(CacheFilesTest, TheRootOfAFileCounts)
{
    m_Tree.directory("r0");
    m_Tree.file("r1/4/" + s_Name, "123");
    m_Place.m_Roots = {m_Tree.path("r0"), m_Tree.path("r1")};
    // The digits make 10.
    const CacheFiles files = list(true);
    ASSERT_EQ(files.files().size(), 1U);
    EXPECT_FALSE(files.isInPlace(files.files()[0]));
}

TEST_F(CacheFilesTest, AnythingElseIsAWarning)
{
    m_Tree.file("r1/TdxLog.txt", "the store's own");
    m_Tree.file("r1/4/stranger", "");
    m_Tree.pipe("r1/4/" + s_Name);
    m_Tree.link("r1/5/" + s_Name, "/etc/passwd");
    m_Tree.link("r1/6", "4");
    EXPECT_TRUE(list(true).files().empty());
    EXPECT_EQ(m_Warnings.count(CacheWarnings::Unexpected), 2);
    EXPECT_EQ(m_Warnings.count(CacheWarnings::Link), 2);
    EXPECT_EQ(m_Errors.report().count(), 0);
}

TEST_F(CacheFilesTest, ABlockFileOutsideOfBucketsIsUnexpected)
{
    m_Tree.file("r1/" + s_Name, "next to the buckets");
    EXPECT_TRUE(list(true).files().empty());
    EXPECT_EQ(m_Warnings.count(CacheWarnings::Unexpected), 1);
    EXPECT_THAT(m_Errors.lines(),
                ElementsAre(HasSubstr("is named like a block, but is not in a bucket")));
}

TEST_F(CacheFilesTest, WritableDirectoriesAreWarnings)
{
    m_Tree.file("r1/4/" + s_Name, "123");
    list(true);
    EXPECT_EQ(m_Warnings.count(CacheWarnings::Writable), 0);
    for (const std::string& name : {std::string("r1"), std::string("r1/4"), "r1/4/" + s_Name})
        ASSERT_EQ(::chmod(m_Tree.path(name).c_str(), 0777), 0);
    list(true);
    EXPECT_EQ(m_Warnings.count(CacheWarnings::Writable), 2) << "files are checked once open";
}
