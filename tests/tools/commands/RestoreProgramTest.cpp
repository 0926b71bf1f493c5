// Ingest, restore and stat, each in a process of its own, with nothing between them but the disk.

#include "support/TemporaryTree.h"
#include "tools/support/ProgramRunner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class RestoreProgram : public ::testing::Test
{
protected:
    // A tree with small, large, empty, equal and oddly named files.
    void SetUp() override
    {
        m_Tree.directory("in");
        m_Tree.directory("in/sub");
        m_Tree.file("in/empty", "");
        m_Tree.file("in/small", "abc");
        m_Tree.file("in/sub/equal", "abc");
        m_Tree.file("in/sub/exact", mixedBytes(4096, 3));
        m_Tree.file("in/sub/large", mixedBytes(300000, 1));
        m_Tree.file("in/n\xFF\n'", "odd");
    }

    Outcome run(const std::vector<std::string>& line) const { return runTool(line, m_Tree.top()); }

    Outcome ingest(std::vector<std::string> options = {}) const
    {
        options.insert(options.begin(), {"ingest", "in", "--block", "1K", "--memory", "64K"});
        return run(options);
    }

    Outcome restore(std::vector<std::string> options = {}) const
    {
        options.insert(options.begin(),
                       {"restore", "zebtdx-manifest.jsonl", "--out", "out", "--memory", "64K"});
        return run(options);
    }

    // Whether the restored tree equals the one that was ingested.
    std::string difference() const
    {
        return runShell("diff -r in out/in && diff -r out/in in", m_Tree.top()).m_Output;
    }

    // The paths of all block files.
    std::vector<std::string> blockFiles() const
    {
        std::vector<std::string> paths;
        for (const auto& entry :
             std::filesystem::recursive_directory_iterator(m_Tree.path("zebtdx-cache"))) {
            if (entry.is_regular_file() && entry.path().filename() != "TdxLog.txt")
                paths.push_back(entry.path().string());
        }
        return paths;
    }

    TemporaryTree m_Tree;
};

TEST_F(RestoreProgram, EveryFileComesBackFromTheCacheAlone)
{
    ASSERT_EQ(ingest().m_Status, 0);
    const Outcome outcome = restore({"--json"});
    EXPECT_EQ(outcome.m_Status, 0) << outcome.m_Errors;
    EXPECT_EQ(outcome.m_Errors, "");
    EXPECT_EQ(outcome.number("files"), 6);
    EXPECT_EQ(outcome.number("bytes"), 3 + 3 + 3 + 4096 + 300000);
    EXPECT_EQ(outcome.number("errors"), 0);
    EXPECT_EQ(difference(), "");
    EXPECT_TRUE(std::filesystem::exists(m_Tree.path("out/in/n\xFF\n'")));
}

TEST_F(RestoreProgram, SeveralRootsBucketsAndASubCacheAreFoundAgain)
{
    ASSERT_EQ(ingest({"--root", "r1", "--root", "r2", "--root", "r3", "--buckets", "4",
                      "--sub-cache", "part"})
                  .m_Status,
              0);
    const Outcome outcome = restore();
    EXPECT_EQ(outcome.m_Status, 0) << outcome.m_Errors;
    EXPECT_EQ(difference(), "");
    EXPECT_TRUE(std::filesystem::is_directory(m_Tree.path("r3/part")));
}

TEST_F(RestoreProgram, ACacheThatHasMovedIsFoundByItsRoots)
{
    ASSERT_EQ(ingest({"--root", "r1", "--root", "r2"}).m_Status, 0);
    std::filesystem::rename(m_Tree.path("r1"), m_Tree.path("n1"));
    std::filesystem::rename(m_Tree.path("r2"), m_Tree.path("n2"));
    const Outcome missing = restore();
    EXPECT_EQ(missing.m_Status, 1);
    EXPECT_EQ(missing.m_Errors,
              "zebtdx: cache root " + m_Tree.path("r1") + ": No such file or directory\n");
    const Outcome tooFew = restore({"--root", "n1"});
    EXPECT_EQ(tooFew.m_Status, 2);
    EXPECT_THAT(tooFew.m_Errors, HasSubstr("the manifest's cache has 2 roots, but --root names 1"));
    EXPECT_EQ(restore({"--root", "n1", "--root", "n2"}).m_Status, 0);
    EXPECT_EQ(difference(), "");
}

TEST_F(RestoreProgram, OtherFilesThatAreThereAreNotTouched)
{
    ASSERT_EQ(ingest().m_Status, 0);
    m_Tree.directory("out");
    m_Tree.directory("out/in");
    m_Tree.file("out/in/small", "abd");
    m_Tree.link("out/in/empty", "../../victim");
    const Outcome outcome = restore();
    EXPECT_EQ(outcome.m_Status, 1);
    EXPECT_EQ(outcome.m_Errors,
              "zebtdx: out/in/empty: already exists, and is another file; move it away\n"
              "zebtdx: out/in/small: already exists, and is another file; move it away\n");
    EXPECT_EQ(runShell("cat out/in/small; ls victim 2>/dev/null", m_Tree.top()).m_Output, "abd");
    EXPECT_TRUE(std::filesystem::exists(m_Tree.path("out/in/sub/large")));
}

TEST_F(RestoreProgram, WithoutItsBlocksAFileFailsAndNothingOfItIsLeft)
{
    ASSERT_EQ(ingest().m_Status, 0);
    for (const std::string& path : blockFiles())
        std::filesystem::remove(path);
    const Outcome outcome = restore({"--json"});
    EXPECT_EQ(outcome.m_Status, 1);
    EXPECT_EQ(outcome.number("files"), 0);
    EXPECT_EQ(outcome.errorLines(), 6);
    EXPECT_THAT(outcome.m_Errors,
                HasSubstr("zebtdx: out/in/small: its list of blocks is not in the "
                          "cache\n"));
    EXPECT_EQ(runShell("find out -type f | wc -l", m_Tree.top()).m_Output, "0\n");
}

TEST_F(RestoreProgram, AWrongByteInTheCacheIsNoticed)
{
    ASSERT_EQ(ingest({"--block", "1M", "--memory", "8M"}).m_Status, 2) << "given twice";
    ASSERT_EQ(run({"ingest", "in", "--block", "1M"}).m_Status, 0);
    // Exchanged contents: both files are sound, and neither is what its name says.
    std::vector<std::string> paths = blockFiles();
    std::sort(paths.begin(), paths.end(), [](const std::string& a, const std::string& b) {
        return std::filesystem::file_size(a) > std::filesystem::file_size(b);
    });
    ASSERT_GE(paths.size(), 2U);
    std::filesystem::rename(paths[0], m_Tree.path("held"));
    std::filesystem::rename(paths[1], paths[0]);
    std::filesystem::rename(m_Tree.path("held"), paths[1]);
    const Outcome outcome = run({"restore", "zebtdx-manifest.jsonl", "--out", "out"});
    EXPECT_EQ(outcome.m_Status, 1);
    EXPECT_EQ(outcome.errorLines(), 2) << outcome.m_Errors;
    EXPECT_THAT(outcome.m_Errors,
                HasSubstr("out/in/sub/large: one of its blocks is damaged in the cache; run zebtdx "
                          "verify\n"));
    EXPECT_FALSE(std::filesystem::exists(m_Tree.path("out/in/sub/large")));
    EXPECT_TRUE(std::filesystem::exists(m_Tree.path("out/in/small")));
}

TEST_F(RestoreProgram, WhatIsNoManifestIsRefused)
{
    for (const char* const name : {"missing", "in", "in/small", "in/empty"}) {
        const Outcome outcome = run({"restore", name, "--out", "out"});
        EXPECT_EQ(outcome.m_Status, 1) << name;
        EXPECT_EQ(outcome.errorLines(), 1) << outcome.m_Errors;
        EXPECT_THAT(outcome.m_Errors, StartsWith(std::string("zebtdx: ") + name + ": "));
        EXPECT_FALSE(std::filesystem::exists(m_Tree.path("out")));
    }
}

TEST_F(RestoreProgram, AMemoryLimitBelowTheLargestBlockIsRefused)
{
    ASSERT_EQ(ingest().m_Status, 0);
    const Outcome outcome =
        run({"restore", "zebtdx-manifest.jsonl", "--out", "out", "--memory", "18K"});
    EXPECT_EQ(outcome.m_Status, 2);
    // The list of the 293 blocks of the largest file.
    EXPECT_EQ(outcome.m_Errors,
              "zebtdx: --memory (18 KiB) is smaller than the largest block of the "
              "manifest (18.3 KiB); raise --memory (see --help)\n");
}

TEST_F(RestoreProgram, StatPrintsFilesBytesAndTheirDistribution)
{
    ASSERT_EQ(ingest({"--root", "r1", "--root", "r2", "--buckets", "2"}).m_Status, 0);
    const Outcome outcome = run({"stat", "--root", "r1", "--root", "r2", "--json"});
    EXPECT_EQ(outcome.m_Status, 0) << outcome.m_Errors;
    // 293 + 4 blocks with one of all "abc" and one of "odd", and a list for each distinct file.
    EXPECT_EQ(outcome.number("files"), 293 + 4 + 2 + 5);
    EXPECT_EQ(outcome.number("block_bytes"),
              300000 + 4096 + 3 + 3 + 16 * 5 + 64 * (293 + 4 + 1 + 1));
    EXPECT_EQ(outcome.number("unexpected"), 0) << "the log is the store's own";
    const Outcome text = run({"stat", "--root", "r1", "--root", "r2"});
    EXPECT_THAT(text.m_Output,
                AllOf(HasSubstr("Compression ratio"), HasSubstr("\nr1 "), HasSubstr("\nr2 "),
                      HasSubstr("\n  main/0 "), HasSubstr("\n  main/1 ")));
}

TEST_F(RestoreProgram, StatSeparatesSubCachesAndCountsUnexpectedFiles)
{
    ASSERT_EQ(run({"ingest", "in/small"}).m_Status, 0);
    ASSERT_EQ(run({"ingest", "in/sub/exact", "--sub-cache", "part", "--replace"}).m_Status, 0);
    m_Tree.file("zebtdx-cache/stranger", "");
    m_Tree.file("zebtdx-cache/part/stranger", "");
    const Outcome all = run({"stat", "--json"});
    EXPECT_EQ(all.m_Status, 0) << all.m_Errors;
    EXPECT_EQ(all.number("files"), 4);
    EXPECT_EQ(all.number("unexpected"), 2);
    const Outcome part = run({"stat", "--json", "--sub-cache", "part"});
    EXPECT_EQ(part.number("files"), 2);
    EXPECT_EQ(part.number("block_bytes"), 4096 + 16 + 64);
    EXPECT_EQ(part.number("unexpected"), 1);
    EXPECT_THAT(run({"stat"}).m_Output, HasSubstr("\n  part/"));
}

TEST_F(RestoreProgram, StatOfNothingIsAnError)
{
    const Outcome outcome = run({"stat"});
    EXPECT_EQ(outcome.m_Status, 1);
    EXPECT_EQ(outcome.m_Errors, "zebtdx: zebtdx-cache: No such file or directory\n");
    EXPECT_FALSE(std::filesystem::exists(m_Tree.path("zebtdx-cache")));
}
