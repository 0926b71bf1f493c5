#include "tools/cache/CacheScanner.h"

#include "support/TemporaryTree.h"
#include "tools/support/ErrorLines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

const std::string s_Name = "1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16";

class CacheScannerTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_Tree.directory("r");
        m_Tree.directory("r/10");
        m_Tree.directory("r/9");
        m_Tree.directory("r/part");
        m_Tree.directory("r/part/0");
        for (const char* const bucket : {"r/10/", "r/9/", "r/part/0/"})
            m_Tree.file(bucket + s_Name, "123");
    }

    // "<root> <sub-cache> <bucket> <name>", with a mark for anything but blocks.
    std::vector<std::string> scan(CacheScanner& scan, const std::vector<std::string>& roots)
    {
        std::vector<std::string> lines;
        scan.run(roots, [&lines](const CacheScanner::File& file) {
            lines.push_back(std::to_string(file.m_Root) + " '" + file.m_SubCache + "' " +
                            std::to_string(file.m_Bucket) + " " +
                            (file.m_Name == s_Name ? "block" : file.m_Name) +
                            (file.m_IsBlock ? "" : " unexpected") + (file.m_IsLog ? " log" : ""));
        });
        return lines;
    }

    TemporaryTree m_Tree;
    ErrorLines m_Errors;
    CacheScanner m_Scan{m_Errors.report()};
};

} // namespace

TEST_F(CacheScannerTest, FindsBucketsInOrderOfTheirNumbersAndSubCachesAfterThem)
{
    EXPECT_THAT(scan(m_Scan, {m_Tree.path("r")}),
                ElementsAre("0 '' 9 block", "0 '' 10 block", "0 'part' 0 block"));
    EXPECT_THAT(m_Errors.lines(), IsEmpty());
}

TEST_F(CacheScannerTest, OneSubCacheAlone)
{
    m_Scan.only("part");
    EXPECT_THAT(scan(m_Scan, {m_Tree.path("r")}), ElementsAre("0 'part' 0 block"));
    CacheScanner unnamed(m_Errors.report());
    unnamed.only("");
    EXPECT_THAT(scan(unnamed, {m_Tree.path("r")}), ElementsAre("0 '' 9 block", "0 '' 10 block"));
}

TEST_F(CacheScannerTest, UnexpectedFilesAreMarked)
{
    m_Tree.file("r/TdxLog.txt", "");
    m_Tree.file("r/stranger", "1");
    m_Tree.file("r/9/stranger", "1");
    m_Tree.directory("r/9/folder");
    m_Tree.directory("r/part/folder");
    m_Tree.link("r/9/link", s_Name);
    m_Tree.link("r/9/1-1-1-1-1-1-1-1-1-1-1-1-1-1-1-1", s_Name);
    m_Scan.only("");
    EXPECT_THAT(scan(m_Scan, {m_Tree.path("r")}),
                ElementsAre("0 '' 9 1-1-1-1-1-1-1-1-1-1-1-1-1-1-1-1 unexpected", "0 '' 9 block",
                            "0 '' 9 folder unexpected", "0 '' 9 link unexpected",
                            "0 '' 9 stranger unexpected", "0 '' 10 block",
                            "0 '' -1 TdxLog.txt unexpected log", "0 '' -1 stranger unexpected"));
    CacheScanner part(m_Errors.report());
    part.only("part");
    EXPECT_THAT(scan(part, {m_Tree.path("r")}),
                ElementsAre("0 'part' 0 block", "0 'part' -1 folder unexpected"));
}

TEST_F(CacheScannerTest, ALinkInThePlaceOfABucketIsNotFollowed)
{
    m_Tree.link("r/3", "9");
    m_Scan.only("");
    EXPECT_THAT(scan(m_Scan, {m_Tree.path("r")}),
                ElementsAre("0 '' -1 3 unexpected", "0 '' 9 block", "0 '' 10 block"));
}

TEST_F(CacheScannerTest, AMissingRootDoesNotStopTheScan)
{
    m_Scan.only("part");
    EXPECT_THAT(scan(m_Scan, {m_Tree.path("missing"), m_Tree.path("r")}),
                ElementsAre("1 'part' 0 block"));
    EXPECT_EQ(m_Errors.lines().size(), 1U);
}

TEST_F(CacheScannerTest, AFileThatIsRemovedAfterTheListingIsNoError)
{
    CacheScanner::File file;
    file.m_Path = m_Tree.path("r/9/" + s_Name);
    EXPECT_EQ(CacheScanner::fileBytesOf(file, m_Errors.report()), 3);
    file.m_Path = m_Tree.path("r/9/removed");
    EXPECT_FALSE(CacheScanner::fileBytesOf(file, m_Errors.report()).has_value());
    EXPECT_FALSE(CacheScanner::blockBytesOf(file, m_Errors.report()).has_value());
    EXPECT_THAT(m_Errors.lines(), IsEmpty());
}

TEST_F(CacheScannerTest, AFileThatCannotBeLookedAtIsAnError)
{
    CacheScanner::File file;
    file.m_Path = m_Tree.path("r/9/" + s_Name + "/below");
    EXPECT_FALSE(CacheScanner::fileBytesOf(file, m_Errors.report()).has_value());
    EXPECT_FALSE(CacheScanner::blockBytesOf(file, m_Errors.report()).has_value());
    EXPECT_THAT(m_Errors.lines(),
                ElementsAre(HasSubstr("Not a directory"), HasSubstr("Not a directory")));
}

TEST_F(CacheScannerTest, AFileWithoutAWholeHeaderHasNoBlockSize)
{
    CacheScanner::File file;
    file.m_Path = m_Tree.path("r/9/" + s_Name);
    EXPECT_FALSE(CacheScanner::blockBytesOf(file, m_Errors.report()).has_value());
    EXPECT_THAT(m_Errors.lines(), ElementsAre(HasSubstr("too short for a block")));
}
