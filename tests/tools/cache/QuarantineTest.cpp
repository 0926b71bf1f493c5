#include "tools/cache/Quarantine.h"

#include "tools/cache/CacheWarnings.h"
#include "tools/terminal/ToolError.h"

#include "support/TemporaryTree.h"
#include "tools/support/ErrorLines.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace {

namespace fs = std::filesystem;

const std::string s_Name = "3000-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16";

class QuarantineTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        for (const char* const name : {"r1", "r2", "r2/part", "r2/part/0", "r1/0"})
            m_Tree.directory(name);
        m_Tree.file("r1/0/" + s_Name, "one");
        m_Tree.file("r2/part/0/" + s_Name, "two");
        m_Place.m_Roots = {m_Tree.path("r1"), m_Tree.path("r2")};
    }

    std::string contentOf(const std::string& path)
    {
        std::ostringstream bytes;
        bytes << std::ifstream(path).rdbuf();
        return bytes.str();
    }

    // Moves all files of the cache to that folder.
    std::string moveAll(const std::string& folder)
    {
        CacheWarnings warnings(m_Errors.report());
        const CacheFiles files(m_Place, true, m_Errors.report(), warnings);
        std::string reasons;
        for (const CacheFiles::File& file : files.files()) {
            const auto error = ToolError::of([&] { Quarantine(folder).move(files, file); });
            reasons += error ? error->what() : "";
        }
        return reasons;
    }

    TemporaryTree m_Tree;
    ErrorLines m_Errors;
    StorePlace m_Place;
};

} // namespace

TEST_F(QuarantineTest, FilesKeepTheirPlacesBelowTheirRoots)
{
    EXPECT_EQ(moveAll(m_Tree.path("aside")), "");
    EXPECT_EQ(contentOf(m_Tree.path("aside/root-1/0/" + s_Name)), "one");
    EXPECT_EQ(contentOf(m_Tree.path("aside/root-2/part/0/" + s_Name)), "two");
    EXPECT_FALSE(fs::exists(m_Tree.path("r1/0/" + s_Name)));
    EXPECT_FALSE(fs::exists(m_Tree.path("r2/part/0/" + s_Name)));
}

TEST_F(QuarantineTest, NothingThereIsOverwritten)
{
    for (const char* const content : {"one", "later", "latest"}) {
        m_Tree.file("r1/0/" + s_Name, content);
        EXPECT_EQ(moveAll(m_Tree.path("aside")), "");
    }
    const std::string first = m_Tree.path("aside/root-1/0/" + s_Name);
    EXPECT_EQ(contentOf(first), "one");
    EXPECT_EQ(contentOf(first + ".2"), "later");
    EXPECT_EQ(contentOf(first + ".3"), "latest");
}

TEST_F(QuarantineTest, OnAnotherDiskTheyAreCopied)
{
    std::string top = "/dev/shm/zebtdx-test-XXXXXX";
    if (::mkdtemp(top.data()) == nullptr)
        GTEST_SKIP() << "no other disk";
    EXPECT_EQ(moveAll(top + "/aside"), "");
    EXPECT_EQ(contentOf(top + "/aside/root-1/0/" + s_Name), "one");
    EXPECT_FALSE(fs::exists(m_Tree.path("r1/0/" + s_Name)));
    fs::remove_all(top);
}

TEST_F(QuarantineTest, WhatCannotBeMovedStays)
{
    m_Tree.file("aside", "in the way");
    EXPECT_NE(moveAll(m_Tree.path("aside")), "");
    EXPECT_EQ(contentOf(m_Tree.path("r1/0/" + s_Name)), "one");
}

TEST_F(QuarantineTest, AWayBackIntoTheCacheIsRefused)
{
    m_Tree.directory("aside");
    m_Tree.link("aside/root-1", "../r2");
    EXPECT_NE(moveAll(m_Tree.path("aside")).find("leads out of the quarantine"), std::string::npos);
    EXPECT_EQ(contentOf(m_Tree.path("r1/0/" + s_Name)), "one");
}

TEST_F(QuarantineTest, DirectoriesInOrAroundARootAreRefused)
{
    m_Tree.link("way", "r2/part");
    for (const char* const folder : {"r1", "r1/aside", "way", "way/aside", "aside/../r2"})
        EXPECT_THROW(Quarantine(m_Tree.path(folder)).require(m_Place.m_Roots), ToolError) << folder;
    m_Tree.directory("around");
    m_Tree.directory("around/root-1");
    EXPECT_THROW(Quarantine(m_Tree.path("around")).require({m_Tree.path("around/root-1")}),
                 ToolError);
    for (const char* const folder : {"aside", "r1.aside", "r", "."})
        EXPECT_NO_THROW(Quarantine(m_Tree.path(folder)).require(m_Place.m_Roots)) << folder;
}
