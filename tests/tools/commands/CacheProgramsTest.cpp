// What looks into a cache and cleans it: ls, cat and gc, each in a process of its own.

#include "io/ZebCacheRootLock.h"
#include "support/TemporaryTree.h"
#include "tools/support/ProgramRunner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

class CachePrograms : public ::testing::Test
{
protected:
    // Two trees with a file in common, each with a manifest.
    void SetUp() override
    {
        for (const char* const name : {"a", "b"})
            m_Tree.directory(name);
        m_Tree.file("a/common", mixedBytes(5000, 1));
        m_Tree.file("a/own", mixedBytes(3000, 2));
        m_Tree.file("b/common", mixedBytes(5000, 1));
        m_Tree.file("b/own", mixedBytes(2000, 3));
        for (const char* const name : {"a", "b"}) {
            ASSERT_EQ(run({"ingest", name, "--block", "1K", "--manifest", std::string("m-") + name,
                           "--root", "r1", "--root", "r2"})
                          .m_Status,
                      0);
        }
    }

    Outcome run(const std::vector<std::string>& line) const { return runTool(line, m_Tree.top()); }

    Outcome onCache(std::vector<std::string> line) const
    {
        line.insert(line.end(), {"--root", "r1", "--root", "r2"});
        return run(line);
    }

    // The words of a line of `ls` for this file.
    std::vector<std::string> listed(const std::string& manifest, const std::string& path) const
    {
        std::istringstream lines(run({"ls", manifest}).m_Output);
        for (std::string line; std::getline(lines, line);) {
            std::istringstream words(line);
            std::vector<std::string> found;
            for (std::string word; words >> word;)
                found.push_back(word);
            if (!found.empty() && found.back() == path)
                return found;
        }
        ADD_FAILURE() << path;
        return {"", "", ""};
    }

    // The name of the first block of a file, from the bytes of its list.
    std::string firstMember(const std::string& manifest, const std::string& path) const
    {
        return firstMemberOf(listed(manifest, path)[1]);
    }

    std::string firstMemberOf(const std::string& list) const
    {
        constexpr std::size_t headerBytes = 16;
        constexpr int words = 16;
        const std::string bytes = onCache({"cat", list}).m_Output.substr(headerBytes);
        std::string name;
        for (int word = 0; word < words; ++word) {
            quint32 number = 0;
            std::memcpy(&number, bytes.data() + 4 * word, sizeof number);
            name += (word == 0 ? "" : "-") + std::to_string(number);
        }
        return name;
    }

    void replaceInFile(const std::string& name, const std::string& from, const std::string& to)
    {
        std::ifstream in(m_Tree.path(name));
        std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        const std::size_t position = text.find(from);
        ASSERT_NE(position, std::string::npos) << from;
        m_Tree.file(name, text.replace(position, from.size(), to));
    }

    bool restores(const std::string& manifest, const std::string& name) const
    {
        std::filesystem::remove_all(m_Tree.path("out"));
        return run({"restore", manifest, "--out", "out"}).m_Status == 0 &&
               runShell("diff -r " + name + " out/" + name, m_Tree.top()).m_Output.empty();
    }

    TemporaryTree m_Tree;
};

// Blocks of both trees: 5 + 3 + 2, and a list for each of three different files.
constexpr qint64 s_AllFiles = 10 + 3;

TEST_F(CachePrograms, LsListsTheFilesOfAManifestWithTheirSizes)
{
    EXPECT_EQ(listed("m-a", "a/common")[0], "5000");
    EXPECT_EQ(listed("m-a", "a/own")[0], "3000");
    EXPECT_EQ(listed("m-a", "a/common")[1], listed("m-b", "b/common")[1]) << "equal files";
    EXPECT_EQ(run({"ls", "m-a"}).errorLines(), 0);
    EXPECT_EQ(run({"ls", "a"}).m_Errors, "zebtdx: a: is a directory\n");
}

TEST_F(CachePrograms, LsListsTheBlocksOfACache)
{
    const Outcome outcome = onCache({"ls"});
    EXPECT_EQ(outcome.m_Status, 0);
    EXPECT_EQ(std::count(outcome.m_Output.begin(), outcome.m_Output.end(), '\n'), s_AllFiles);
    EXPECT_THAT(outcome.m_Output, HasSubstr("        1024  "));
    EXPECT_THAT(outcome.m_Output, HasSubstr(listed("m-a", "a/own")[1]));
    EXPECT_EQ(onCache({"ls", "--sub-cache", "main"}).m_Output, outcome.m_Output);
    EXPECT_EQ(onCache({"ls", "m-a"}).m_Status, 2) << "one or the other";
}

TEST_F(CachePrograms, CatGivesABlockAndTheFileThatItLists)
{
    const std::string hash = listed("m-a", "a/own")[1];
    const Outcome file = onCache({"cat", "--file", hash});
    EXPECT_EQ(file.m_Status, 0) << file.m_Errors;
    EXPECT_EQ(file.m_Output, mixedBytes(3000, 2));
    const Outcome block = onCache({"cat", hash});
    EXPECT_EQ(block.m_Output.size(), 16U + 3 * 64);
    EXPECT_EQ(onCache({"cat", hash, hash}).m_Output, block.m_Output + block.m_Output);
}

TEST_F(CachePrograms, CatOfAMissingBlockFails)
{
    EXPECT_EQ(onCache({"cat", "12-13"}).m_Status, 2);
    const std::string hash = "1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16";
    for (const std::vector<std::string>& line :
         {std::vector<std::string>{"cat", hash}, {"cat", "--file", hash}}) {
        const Outcome outcome = onCache(line);
        EXPECT_EQ(outcome.m_Status, 1);
        EXPECT_EQ(outcome.m_Output, "");
        EXPECT_EQ(outcome.m_Errors, "zebtdx: " + hash + ": is not in the cache\n");
    }
}

TEST_F(CachePrograms, CatOfAFileNeedsAListOfBlocks)
{
    // The first block of a list is a block of the file.
    const std::string block = firstMember("m-a", "a/own");
    EXPECT_EQ(onCache({"cat", block}).m_Output, mixedBytes(3000, 2).substr(0, 1024));
    const Outcome outcome = onCache({"cat", "--file", block});
    EXPECT_EQ(outcome.m_Status, 1);
    EXPECT_EQ(outcome.m_Output, "");
    EXPECT_EQ(outcome.m_Errors, "zebtdx: " + block + ": is not a list of blocks\n");
}

TEST_F(CachePrograms, GcRemovesNothingWhenAManifestNamesTheWrongList)
{
    // The block, not the list of the file.
    const std::string list = listed("m-a", "a/own")[1];
    replaceInFile("m-a", list, firstMember("m-a", "a/own"));
    Outcome outcome = run({"gc", "m-a", "--apply"});
    EXPECT_EQ(outcome.m_Status, 1);
    EXPECT_THAT(outcome.m_Errors, HasSubstr("a/own: its list of blocks is not a list of blocks"));
    // A list of another number of blocks.
    replaceInFile("m-a", firstMemberOf(list), listed("m-a", "a/common")[1]);
    outcome = run({"gc", "m-a", "--apply"});
    EXPECT_EQ(outcome.m_Status, 1);
    EXPECT_THAT(outcome.m_Errors, HasSubstr("a/own: its list names 5 blocks, but its size in the "
                                            "manifest needs 3"));
    EXPECT_TRUE(restores("m-b", "b"));
}

TEST_F(CachePrograms, GcOnlyReportsWithoutApply)
{
    const Outcome outcome = run({"gc", "m-a", "--json"});
    EXPECT_EQ(outcome.m_Status, 0) << outcome.m_Errors;
    EXPECT_EQ(outcome.number("kept_files"), 5 + 3 + 2);
    EXPECT_EQ(outcome.number("unreferenced_files"), 2 + 1);
    EXPECT_EQ(outcome.number("removed_bytes"), 0);
    EXPECT_THAT(run({"gc", "m-a"}).m_Output, HasSubstr("Nothing was removed. Pass --apply"));
    EXPECT_TRUE(restores("m-b", "b"));
}

TEST_F(CachePrograms, GcWithoutApplyOnlyReads)
{
    std::filesystem::remove(m_Tree.path("r1/main/TdxLog.txt"));
    ZebCacheRootLock reader;
    ASSERT_EQ(reader.tryLock(QString::fromStdString(m_Tree.path("r1")), ZebCacheRootLock::Shared),
              ZebCacheRootLock::Locked);
    const Outcome reported = run({"gc", "m-a", "m-b"});
    EXPECT_EQ(reported.m_Status, 0) << reported.m_Errors;
    EXPECT_FALSE(std::filesystem::exists(m_Tree.path("r1/main/TdxLog.txt")));
    EXPECT_THAT(run({"gc", "m-a", "m-b", "--apply"}).m_Errors, HasSubstr("is in use"));
    reader.unlock();
    // A mount point whose disk is missing is no cache.
    for (const char* const root : {"r1", "r2"}) {
        std::filesystem::rename(m_Tree.path(root), m_Tree.path(std::string("away-") + root));
        m_Tree.directory(root);
    }
    EXPECT_EQ(run({"gc", "m-a", "m-b"}).m_Status, 1);
    EXPECT_TRUE(std::filesystem::is_empty(m_Tree.path("r1")));
}

TEST_F(CachePrograms, GcRemovesBlocksThatNoManifestReferences)
{
    m_Tree.file("r1/main/stranger", "mine");
    const Outcome outcome = run({"gc", "m-a", "--apply", "--json"});
    EXPECT_EQ(outcome.m_Status, 0) << outcome.m_Errors;
    EXPECT_EQ(outcome.number("removed_files"), 3);
    EXPECT_EQ(outcome.number("kept_files"), 10);
    EXPECT_EQ(onCache({"stat", "--json"}).number("files"), 10);
    EXPECT_TRUE(restores("m-a", "a"));
    EXPECT_FALSE(restores("m-b", "b"));
    EXPECT_TRUE(std::filesystem::exists(m_Tree.path("r1/main/stranger")));
}

TEST_F(CachePrograms, GcWithAllManifestsKeepsEverything)
{
    const Outcome outcome = run({"gc", "m-a", "m-b", "--apply", "--json"});
    EXPECT_EQ(outcome.m_Status, 0) << outcome.m_Errors;
    EXPECT_EQ(outcome.number("unreferenced_files"), 0);
    EXPECT_EQ(outcome.number("kept_files"), s_AllFiles);
    EXPECT_TRUE(restores("m-a", "a"));
    EXPECT_TRUE(restores("m-b", "b"));
}

TEST_F(CachePrograms, GcRemovesNothingWhenAListIsMissing)
{
    const std::string hash = listed("m-a", "a/own")[1];
    std::filesystem::path file;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(m_Tree.top())) {
        if (entry.path().filename() == hash)
            file = entry.path();
    }
    ASSERT_TRUE(std::filesystem::remove(file));
    const Outcome outcome = run({"gc", "m-a", "--apply"});
    EXPECT_EQ(outcome.m_Status, 1);
    EXPECT_EQ(outcome.m_Errors,
              "zebtdx: a/own: its list of blocks is not in the cache\n"
              "zebtdx: nothing is removed, as the blocks to keep are not all known; ingest the "
              "files above again and replace their manifest\n");
    EXPECT_TRUE(restores("m-b", "b"));
}

TEST_F(CachePrograms, GcOfDifferentCachesIsRefused)
{
    ASSERT_EQ(run({"ingest", "a", "--manifest", "m-other", "--root", "r3"}).m_Status, 0);
    ASSERT_EQ(run({"ingest", "a", "--manifest", "m-sub", "--root", "r1", "--root", "r2",
                   "--sub-cache", "other"})
                  .m_Status,
              0);
    for (const char* const other : {"m-other", "m-sub"}) {
        const Outcome outcome = run({"gc", "m-a", other, "--apply"});
        EXPECT_EQ(outcome.m_Status, 1);
        EXPECT_EQ(outcome.m_Errors, std::string("zebtdx: ") + other +
                                        ": belongs to another cache; clean one cache at a time\n");
    }
    EXPECT_EQ(run({"gc"}).m_Status, 2);
    EXPECT_EQ(run({"gc", "m-missing"}).m_Errors, "zebtdx: m-missing: No such file or directory\n");
    EXPECT_TRUE(restores("m-b", "b"));
}

TEST_F(CachePrograms, AManifestIsNotReplacedByOneWithoutFiles)
{
    const auto replace = [this](const std::vector<std::string>& options) {
        std::vector<std::string> line = {"ingest",     "a",   "--block",  "1K",
                                         "--manifest", "m-a", "--replace"};
        line.insert(line.end(), options.begin(), options.end());
        return onCache(line);
    };
    std::filesystem::rename(m_Tree.path("a"), m_Tree.path("kept"));
    m_Tree.directory("a");
    for (const bool isMissing : {false, true}) {
        if (isMissing)
            std::filesystem::remove(m_Tree.path("a"));
        const Outcome refused = replace({});
        EXPECT_EQ(refused.m_Status, 1);
        EXPECT_THAT(refused.m_Errors,
                    HasSubstr("zebtdx: m-a: is not replaced, as the new one would list no files; "
                              "it stays as it is; fix the cause, or pass --force"));
        EXPECT_EQ(run({"gc", "m-a", "m-b", "--apply"}).m_Status, 0);
        EXPECT_EQ(onCache({"stat", "--json"}).number("files"), s_AllFiles);
    }
    m_Tree.directory("a");
    const Outcome forced = replace({"--force", "--json"});
    EXPECT_EQ(forced.m_Status, 0) << forced.m_Errors;
    EXPECT_EQ(forced.json()[QStringLiteral("previous_manifest")].toString(), QString("m-a.1"));
    const Outcome collected = run({"gc", "m-a", "--apply"});
    EXPECT_EQ(collected.m_Status, 1);
    EXPECT_THAT(collected.m_Errors, HasSubstr("nothing is removed, as the manifests list no "
                                              "files; check that these are all manifests"));
    std::filesystem::remove(m_Tree.path("a"));
    std::filesystem::rename(m_Tree.path("kept"), m_Tree.path("a"));
    EXPECT_TRUE(restores("m-a.1", "a"));
}

TEST_F(CachePrograms, AManifestIsNotReplacedWhenFilesFailed)
{
    m_Tree.pipe("a/pipe");
    std::filesystem::remove(m_Tree.path("a/own"));
    for (const bool force : {false, true}) {
        std::vector<std::string> line = {"ingest",     "a",   "--block",  "1K",
                                         "--manifest", "m-a", "--replace"};
        if (force)
            line.push_back("--force");
        const Outcome outcome = onCache(line);
        EXPECT_EQ(outcome.m_Status, 1);
        EXPECT_EQ(outcome.m_Errors.find("is not replaced") == std::string::npos, force);
        EXPECT_EQ(std::filesystem::exists(m_Tree.path("m-a.1")), force);
    }
}

TEST_F(CachePrograms, GcRemovesMoreThanHalfOnlyWhenForced)
{
    m_Tree.directory("c");
    m_Tree.file("c/f", mixedBytes(1000, 9));
    ASSERT_EQ(onCache({"ingest", "c", "--block", "1K", "--manifest", "m-c"}).m_Status, 0);
    EXPECT_THAT(run({"gc", "m-c"}).m_Output,
                HasSubstr("Pass --apply to remove unreferenced files, and --force, as 13 of 15 "
                          "block files, more than half, are unreferenced.\n"));
    const Outcome refused = run({"gc", "m-c", "--apply"});
    EXPECT_EQ(refused.m_Status, 1);
    EXPECT_THAT(refused.m_Errors,
                HasSubstr("nothing is removed, as 13 of 15 block files, more than half, are "
                          "unreferenced; check that these are all manifests of the cache, then "
                          "pass --force\n"));
    EXPECT_TRUE(restores("m-b", "b"));
    EXPECT_EQ(run({"gc", "m-c", "--apply", "--force", "--json"}).number("removed_files"), 13);
    EXPECT_TRUE(restores("m-c", "c"));
}

TEST_F(CachePrograms, GcRefusesManifestsWithCraftedNames)
{
    for (const char* const name : {"../own", "/etc/passwd", "a/../../own", "own\\u0000", "./own"}) {
        std::filesystem::copy_file(m_Tree.path("m-a"), m_Tree.path("m-bad"),
                                   std::filesystem::copy_options::overwrite_existing);
        replaceInFile("m-bad", "a/own", name);
        const Outcome outcome = run({"gc", "m-bad", "--apply"});
        EXPECT_EQ(outcome.m_Status, 1) << name;
        EXPECT_THAT(outcome.m_Errors, HasSubstr(" has a name that leads out of the directory\n"))
            << name;
    }
    // A newline is a character like any other.
    replaceInFile("m-a", "a/own", "a\\nown");
    EXPECT_EQ(run({"gc", "m-a"}).m_Status, 0);
    // A digest that leads to no root, since the digits of its beginning have a negative sum.
    const std::string list = listed("m-a", "a/common")[1];
    replaceInFile("m-a", list, "0-0-3-4-5-6-7-8-9-10-11-12-13-14-15-16");
    const Outcome outcome = run({"gc", "m-a", "--apply"});
    EXPECT_EQ(outcome.m_Status, 1);
    EXPECT_THAT(outcome.m_Errors, AllOf(HasSubstr("a/common: "), HasSubstr("nothing is removed")));
    replaceInFile("m-a", "0-0-3-4", "0-0-3");
    EXPECT_THAT(run({"gc", "m-a", "--apply"}).m_Errors, HasSubstr("has no valid \"group\"\n"));
    EXPECT_EQ(onCache({"stat", "--json"}).number("files"), s_AllFiles);
}

TEST_F(CachePrograms, GcSurvivesAListAboveTheMemoryLimit)
{
    const std::string hash = listed("m-a", "a/own")[1];
    const QByteArray payload = qCompress(QByteArray(8 * 1024 * 1024, 'x'), 2);
    const qint64 size = 8 * 1024 * 1024;
    const qint32 length = payload.size();
    std::string bytes(reinterpret_cast<const char*>(&size), sizeof size);
    bytes.append(reinterpret_cast<const char*>(&length), sizeof length);
    bytes += payload.toStdString();
    for (const auto& entry : std::filesystem::recursive_directory_iterator(m_Tree.top())) {
        if (entry.path().filename() == hash)
            std::ofstream(entry.path(), std::ios::binary) << bytes;
    }
    const Outcome outcome = run({"gc", "m-a", "--apply", "--memory", "1M"});
    EXPECT_EQ(outcome.m_Status, 1);
    EXPECT_THAT(outcome.m_Errors,
                AllOf(HasSubstr("a/own: its list of blocks "), HasSubstr("nothing is removed")));
    EXPECT_TRUE(restores("m-b", "b"));
}

TEST_F(CachePrograms, GcObeysTheSwitchOfTheEnvironment)
{
    const Outcome outcome =
        runShell(R"(ZEBA_TDX_GARBAGE_COLLECTION_DISABLED= exec "$0" gc m-a --apply)", m_Tree.top());
    EXPECT_EQ(outcome.m_Status, 1);
    EXPECT_THAT(outcome.m_Errors,
                HasSubstr("ZEBA_TDX_GARBAGE_COLLECTION_DISABLED disables collection"));
    EXPECT_TRUE(restores("m-b", "b"));
}

TEST_F(CachePrograms, AnyNumberOfCompressionThreadsGivesTheSameCache)
{
    for (const char* const threads : {"0", "1", "3"}) {
        std::filesystem::remove_all(m_Tree.path("r1"));
        std::filesystem::remove_all(m_Tree.path("r2"));
        ASSERT_EQ(run({"ingest", "a", "--block", "1K", "--replace", "--manifest", "m-a", "--root",
                       "r1", "--root", "r2", "--compression-threads", threads})
                      .m_Status,
                  0);
        EXPECT_TRUE(restores("m-a", "a")) << threads;
    }
}
