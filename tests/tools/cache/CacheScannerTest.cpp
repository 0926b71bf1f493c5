#include "tools/cache/CacheScanner.h"

#include "tools/support/ErrorLines.h"
#include "tools/support/TemporaryTree.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

const std::string s_Name = "1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16";

class CacheScannerTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_Tree.folder("r");
        m_Tree.folder("r/10");
        m_Tree.folder("r/9");
        m_Tree.folder("r/part");
        m_Tree.folder("r/part/0");
        for (const char* const bucket : {"r/10/", "r/9/", "r/part/0/"})
            m_Tree.file(bucket + s_Name, "123");
    }

    // "<root> <sub-cache> <bucket> <name> <size>", with a mark for what is no block.
    std::vector<std::string> scan(CacheScanner& scan, const std::vector<std::string>& roots)
    {
        std::vector<std::string> lines;
        scan.run(roots, [&lines](const CacheScanner::File& file) {
            lines.push_back(std::to_string(file.m_Root) + " '" + file.m_SubCache + "' " +
                            std::to_string(file.m_Bucket) + " " +
                            (file.m_Name == s_Name ? "block" : file.m_Name) + " " +
                            std::to_string(file.m_Size) + (file.m_IsBlock ? "" : " foreign") +
                            (file.m_IsLog ? " log" : ""));
        });
        return lines;
    }

    TemporaryTree m_Tree;
    ErrorLines m_Errors;
    CacheScanner m_Scan{m_Errors.report()};
};

} // namespace

TEST_F(CacheScannerTest, FindsBucketsInOrderOfTheirNumbersAndSubCachesBehindThem)
{
    EXPECT_THAT(scan(m_Scan, {m_Tree.path("r")}),
                ElementsAre("0 '' 9 block 3", "0 '' 10 block 3", "0 'part' 0 block 3"));
    EXPECT_THAT(m_Errors.lines(), IsEmpty());
}

TEST_F(CacheScannerTest, OneSubCacheAlone)
{
    m_Scan.only("part");
    EXPECT_THAT(scan(m_Scan, {m_Tree.path("r")}), ElementsAre("0 'part' 0 block 3"));
    CacheScanner unnamed(m_Errors.report());
    unnamed.only("");
    EXPECT_THAT(scan(unnamed, {m_Tree.path("r")}),
                ElementsAre("0 '' 9 block 3", "0 '' 10 block 3"));
}

TEST_F(CacheScannerTest, WhatIsNotTheCachesIsMarked)
{
    m_Tree.file("r/TdxLog.txt", "");
    m_Tree.file("r/stranger", "1");
    m_Tree.file("r/9/stranger", "1");
    m_Tree.folder("r/9/folder");
    m_Tree.folder("r/part/folder");
    m_Tree.link("r/9/link", s_Name);
    m_Tree.link("r/9/1-1-1-1-1-1-1-1-1-1-1-1-1-1-1-1", s_Name);
    m_Scan.only("");
    EXPECT_THAT(scan(m_Scan, {m_Tree.path("r")}),
                ElementsAre("0 '' 9 1-1-1-1-1-1-1-1-1-1-1-1-1-1-1-1 38 foreign", "0 '' 9 block 3",
                            ::testing::MatchesRegex("0 '' 9 folder [0-9]+ foreign"),
                            "0 '' 9 link 38 foreign", "0 '' 9 stranger 1 foreign",
                            "0 '' 10 block 3", "0 '' -1 TdxLog.txt 0 foreign log",
                            "0 '' -1 stranger 1 foreign"));
    CacheScanner part(m_Errors.report());
    part.only("part");
    EXPECT_THAT(scan(part, {m_Tree.path("r")}),
                ElementsAre("0 'part' 0 block 3",
                            ::testing::MatchesRegex("0 'part' -1 folder [0-9]+ foreign")));
}

TEST_F(CacheScannerTest, ALinkInThePlaceOfABucketIsNotFollowed)
{
    m_Tree.link("r/3", "9");
    m_Scan.only("");
    EXPECT_THAT(scan(m_Scan, {m_Tree.path("r")}),
                ElementsAre("0 '' -1 3 1 foreign", "0 '' 9 block 3", "0 '' 10 block 3"));
}

TEST_F(CacheScannerTest, AMissingRootIsAnErrorAndTheOthersGoOn)
{
    m_Scan.only("part");
    EXPECT_THAT(scan(m_Scan, {m_Tree.path("missing"), m_Tree.path("r")}),
                ElementsAre("1 'part' 0 block 3"));
    EXPECT_EQ(m_Errors.lines().size(), 1U);
}

TEST(CacheScanner, ABlockNameIsTheTextFormOfAHashAndNothingElse)
{
    EXPECT_TRUE(CacheScanner::isBlockName(s_Name));
    EXPECT_TRUE(CacheScanner::isBlockName("0-0-0-0-0-0-0-0-0-0-0-0-0-0-0-4294967295"));
    for (const char* const name :
         {"", "-", "1", "---------------", "1-2-3-4-5-6-7-8-9-10-11-12-13-14-15",
          "1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16-17", "1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16-",
          "-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16", "01-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16",
          "1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-4294967296", "1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-x",
          "1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-+1", "1-2-3-4-5-6-7-8-9-10-11-12-13-14-15- 1"})
        EXPECT_FALSE(CacheScanner::isBlockName(name)) << name;
}
