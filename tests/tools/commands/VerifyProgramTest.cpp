// verify, repair and probe, each in a separate process.

#include "support/TemporaryTree.h"
#include "tools/support/ProgramRunner.h"

#include "io/ZebCacheRootLock.h"
#include "tools/cache/RootLock.h"

#include <QJsonArray>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

using ::testing::AllOf;
using ::testing::HasSubstr;

namespace {

namespace fs = std::filesystem;

class VerifyProgram : public ::testing::Test
{
protected:
    // A file of 40 blocks, and another one that is a block and a bit.
    void SetUp() override
    {
        m_Tree.directory("in");
        m_Tree.file("in/long", mixedBytes(40 * 1024, 1));
        m_Tree.file("in/short", mixedBytes(1500, 2));
        ASSERT_EQ(ingest().m_Status, 0);
        for (const auto& entry : fs::recursive_directory_iterator(m_Tree.top())) {
            if (entry.is_regular_file() && entry.file_size() > 900 &&
                entry.path().filename().string().find('-') != std::string::npos)
                m_Blocks.push_back(entry.path());
        }
        ASSERT_GT(m_Blocks.size(), 40U);
    }

    Outcome run(const std::vector<std::string>& line) const { return runTool(line, m_Tree.top()); }

    Outcome ingest() const
    {
        return run({"ingest", "in", "--block", "1K", "--root", "r1", "--root", "r2", "--manifest",
                    "m", "--replace"});
    }

    Outcome onCache(std::vector<std::string> line) const
    {
        line.insert(line.end(), {"--root", "r1", "--root", "r2"});
        return run(line);
    }

    bool restores() const
    {
        fs::remove_all(m_Tree.path("out"));
        return run({"restore", "m", "--out", "out"}).m_Status == 0 &&
               runShell("diff -r in out/in", m_Tree.top()).m_Output.empty();
    }

    static std::string bytesOf(const fs::path& path)
    {
        std::ifstream stream(path, std::ios::binary);
        std::ostringstream bytes;
        bytes << stream.rdbuf();
        return bytes.str();
    }

    static void write(const fs::path& path, const std::string& bytes)
    {
        std::ofstream(path, std::ios::binary) << bytes;
    }

    // Another byte in the middle.
    static void flip(const fs::path& path)
    {
        std::string bytes = bytesOf(path);
        char& byte = bytes[bytes.size() / 2];
        byte = static_cast<char>(byte ^ 0x10);
        write(path, bytes);
    }

    TemporaryTree m_Tree;
    std::vector<fs::path> m_Blocks;
};

} // namespace

TEST_F(VerifyProgram, AGoodCacheIsClean)
{
    for (const std::vector<std::string>& line : {std::vector<std::string>{"verify"},
                                                 {"verify", "--fast"},
                                                 {"verify", "--threads", "1"},
                                                 {"verify", "--sub-cache", "main"},
                                                 {"repair"}}) {
        std::vector<std::string> withJson = line;
        withJson.emplace_back("--json");
        const Outcome outcome = onCache(withJson);
        EXPECT_EQ(outcome.m_Status, 0) << outcome.m_Errors;
        EXPECT_EQ(outcome.m_Errors, "");
        EXPECT_EQ(outcome.number("damaged"), 0);
        EXPECT_EQ(outcome.number("files"), 42 + 2);
    }
}

TEST_F(VerifyProgram, EachDamagedFileIsOneLineWithAdvice)
{
    flip(m_Blocks[0]);
    fs::resize_file(m_Blocks[1], 100);
    write(m_Blocks[2], bytesOf(m_Blocks[2]) + "x");
    write(m_Blocks[3], bytesOf(m_Blocks[4]));
    const Outcome outcome = onCache({"verify"});
    EXPECT_EQ(outcome.m_Status, 1);
    EXPECT_EQ(outcome.errorLines(), 4) << outcome.m_Errors;
    const std::string advice = "move it out with zebtdx repair, then add its bytes again\n";
    EXPECT_THAT(outcome.m_Errors, HasSubstr(": is shorter than its header says ("));
    EXPECT_THAT(outcome.m_Errors, HasSubstr(": has bytes after its payload ("));
    EXPECT_THAT(outcome.m_Errors,
                HasSubstr(": contains bytes that do not match its name; " + advice));
    const Outcome asJson = onCache({"verify", "--json"});
    EXPECT_EQ(asJson.number("damaged"), 4);
    EXPECT_EQ(asJson.number("damaged_too_short"), 1);
    EXPECT_EQ(asJson.json()["damage"].toArray().size(), 4);
}

TEST_F(VerifyProgram, ASampleChecksItsShare)
{
    EXPECT_EQ(onCache({"verify", "--sample", "25", "--json"}).number("files"), 11);
    EXPECT_EQ(onCache({"verify", "--sample", "0"}).m_Status, 2);
    EXPECT_EQ(onCache({"verify", "--sample", "101"}).m_Status, 2);
}

TEST_F(VerifyProgram, WarningsDoNotChangeTheStatus)
{
    m_Tree.file("r1/main/stranger", "mine");
    m_Tree.link("r2/main/link", "/");
    fs::resize_file(m_Blocks[0], 5);
    fs::permissions(m_Blocks[1], fs::perms::others_write, fs::perm_options::add);
    const Outcome outcome = onCache({"verify", "--json"});
    EXPECT_EQ(outcome.m_Status, 0) << outcome.m_Errors;
    EXPECT_EQ(outcome.errorLines(), 4) << outcome.m_Errors;
    for (const char* const key : {"unexpected", "links", "truncated", "writable"})
        EXPECT_EQ(outcome.number(key), 1) << key;
}

TEST_F(VerifyProgram, WhatCannotBeCheckedIsNotCalledClean)
{
    EXPECT_EQ(run({"verify", "--root", "missing"}).m_Status, 2);
    EXPECT_EQ(run({"verify", "--root", "m"}).m_Errors, "zebtdx: m: Not a directory\n");
    EXPECT_EQ(run({"verify", "--root", "r1", "--root", "r1"}).m_Status, 2);
    EXPECT_EQ(run({"verify", "--fats"}).m_Status, 2);
}

TEST_F(VerifyProgram, VerifyWritesNothing)
{
    flip(m_Blocks[0]);
    const std::string list = "find r1 r2 -printf '%p %s %T@ %m\\n' | sort";
    const std::string before = runShell(list, m_Tree.top()).m_Output;
    onCache({"verify"});
    onCache({"repair"});
    EXPECT_EQ(runShell(list, m_Tree.top()).m_Output, before);
    EXPECT_FALSE(fs::exists(m_Tree.path("zebtdx-quarantine")));
}

TEST_F(VerifyProgram, ACacheThatACrashDamagedHeals)
{
    // What a crash leaves: a file that looks complete, a truncated one, and a page of zeros.
    fs::resize_file(m_Blocks[0], fs::file_size(m_Blocks[0]) - 200);
    fs::resize_file(m_Blocks[1], 8);
    std::string zeros = bytesOf(m_Blocks[2]);
    zeros.replace(500, 300, 300, '\0');
    write(m_Blocks[2], zeros);
    EXPECT_FALSE(restores());
    ASSERT_EQ(ingest().m_Status, 1) << "the length of the last one is right";
    EXPECT_FALSE(restores());

    EXPECT_EQ(onCache({"repair"}).m_Status, 1);
    const Outcome outcome = onCache({"repair", "--apply", "--quarantine", "aside", "--json"});
    EXPECT_EQ(outcome.m_Status, 0) << outcome.m_Errors;
    EXPECT_EQ(outcome.number("moved"), 1);
    EXPECT_EQ(runShell("find aside -type f | wc -l", m_Tree.top()).m_Output, "1\n");
    EXPECT_FALSE(restores()) << "the block is missing now";
    ASSERT_EQ(ingest().m_Status, 0);
    EXPECT_TRUE(restores());
    const Outcome after = onCache({"verify", "--json"});
    EXPECT_EQ(after.m_Status, 0);
    EXPECT_EQ(after.number("truncated"), 0);
}

TEST_F(VerifyProgram, BlocksAboveTheLimitAreReportedAndNotMoved)
{
    // Every block is larger, so none can be checked, and all may be sound.
    const Outcome outcome = onCache({"repair", "--apply", "--largest", "100", "--json"});
    EXPECT_EQ(outcome.m_Status, 1) << outcome.m_Errors;
    EXPECT_EQ(outcome.number("damaged_too_large"), 42 + 2);
    EXPECT_EQ(outcome.number("moved"), 0);
    EXPECT_TRUE(restores());
    EXPECT_EQ(onCache({"repair", "--largest", "4K"}).m_Status, 0);
}

TEST_F(VerifyProgram, ALimitBelowOneByteIsBadUsage)
{
    for (const char* const command : {"verify", "repair"}) {
        const Outcome outcome = onCache({command, "--largest", "0"});
        EXPECT_EQ(outcome.m_Status, 2) << command;
        EXPECT_EQ(outcome.m_Output, "") << command;
        EXPECT_THAT(outcome.m_Errors, HasSubstr("--largest: must be at least 1 byte")) << command;
        EXPECT_EQ(onCache({command, "--largest", "1"}).m_Status, 1) << command;
    }
}

TEST_F(VerifyProgram, AQuarantineInARootIsRefused)
{
    flip(m_Blocks[0]);
    m_Tree.link("way", "r1/main");
    for (const char* const place : {"r1", "r2/aside", "way/aside", "r1/../r2/x"}) {
        const Outcome outcome = onCache({"repair", "--apply", "--quarantine", place});
        EXPECT_EQ(outcome.m_Status, 2) << place;
        EXPECT_THAT(outcome.m_Errors, HasSubstr("is inside the cache root")) << place;
    }
    EXPECT_EQ(onCache({"verify"}).m_Status, 1) << "it is still there";
}

TEST_F(VerifyProgram, OneProcessAtATime)
{
    RootLock lock;
    lock.take({m_Tree.path("r1")}, RootLock::Use::Reading);
    const Outcome outcome = onCache({"repair", "--apply"});
    EXPECT_EQ(outcome.m_Status, 2);
    EXPECT_EQ(outcome.m_Errors,
              "zebtdx: cache root r1 is in use by another process; try again when "
              "it has ended\n");
    EXPECT_EQ(ingest().m_Status, 1);
    EXPECT_EQ(onCache({"verify"}).m_Status, 0);
    EXPECT_TRUE(restores()) << "reading together";
    EXPECT_THAT(onCache({"probe", "--space", "1M"}).m_Output,
                HasSubstr("FAILED  r1: unused: another process uses it"));
}

TEST_F(VerifyProgram, AHostCanKeepTheToolAway)
{
    ZebCacheRootLock host;
    ASSERT_EQ(host.tryLock(QString::fromStdString(m_Tree.path("r2")), ZebCacheRootLock::Exclusive),
              ZebCacheRootLock::Locked);
    const std::string inUse =
        "zebtdx: cache root r2 is in use by another process; try again when it has ended\n";
    EXPECT_EQ(ingest().m_Errors, inUse);
    EXPECT_EQ(onCache({"repair"}).m_Errors, inUse);
    EXPECT_THAT(onCache({"verify"}).m_Errors, HasSubstr("is in use by another process"));
    EXPECT_FALSE(restores());
    host.unlock();
    EXPECT_TRUE(restores());
}

TEST_F(VerifyProgram, ProbeReportsObstacles)
{
    const Outcome fit = onCache({"probe", "--space", "1M", "--json"});
    EXPECT_EQ(fit.m_Status, 0) << fit.m_Output;
    EXPECT_TRUE(fit.json()["fit"].toBool());
    EXPECT_EQ(run({"probe", "--root", "missing"}).m_Status, 1);
    EXPECT_THAT(run({"probe", "--root", "m"}).m_Output, HasSubstr("FAILED  m: exists: "));
    EXPECT_THAT(onCache({"probe", "--space", "1000000T"}).m_Output,
                AllOf(HasSubstr("FAILED  r1: space: "), HasSubstr("required")));
    EXPECT_THAT(run({"probe", "--root", "r1", "--root", "r1/main"}).m_Output,
                HasSubstr("FAILED  r1/main: separate: "));
    fs::permissions(m_Tree.path("r2"), fs::perms::group_write, fs::perm_options::add);
    EXPECT_THAT(onCache({"probe"}).m_Output, HasSubstr("FAILED  r2: permissions: "));
    EXPECT_THAT(runShell(R"(umask 0; "$0" probe --root r1)", m_Tree.top()).m_Output,
                HasSubstr("FAILED  umask: "));
    EXPECT_EQ(runShell("ls -A r1 r2", m_Tree.top()).m_Output, "r1:\nmain\n\nr2:\nmain\n");
}
