// Ingests that were interrupted: the same command line must end with a cache that restores.

#include "support/TemporaryTree.h"
#include "tools/support/ProgramRunner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <vector>

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

namespace fs = std::filesystem;

constexpr std::streamoff s_PayloadOffset = 12;

} // namespace

class IngestInterrupted : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_Tree.directory("in");
        m_Tree.file("in/text", std::string(5000, 'x') + std::string(5000, 'y'));
        m_Tree.file("in/random", mixedBytes(10000, 1));
        m_Tree.file("in/empty", "");
    }

    std::vector<std::string> line(const std::vector<std::string>& options) const
    {
        std::vector<std::string> whole = {"ingest", "in",        "--json",     "--block",
                                          "4K",     "--root",    "r1",         "--root",
                                          "r2",     "--replace", "--manifest", "m"};
        whole.insert(whole.end(), options.begin(), options.end());
        return whole;
    }

    Outcome ingest(const std::vector<std::string>& options = {}) const
    {
        return runTool(line(options), m_Tree.top());
    }

    // Empty when a process of its own restores every byte from the disk.
    std::string whyNotRestored() const
    {
        fs::remove_all(m_Tree.path("out"));
        const Outcome restored = runTool({"restore", "m", "--out", "out"}, m_Tree.top());
        if (restored.m_Status != 0)
            return restored.m_Errors;
        return runShell("diff -r in out/in", m_Tree.top()).m_Output;
    }

    std::vector<fs::path> filesInCache(const std::function<bool(const std::string&)>& wanted) const
    {
        std::vector<fs::path> found;
        for (const char* const root : {"r1", "r2"}) {
            if (!fs::exists(m_Tree.path(root)))
                continue;
            for (const auto& entry : fs::recursive_directory_iterator(m_Tree.path(root))) {
                if (entry.is_regular_file() && wanted(entry.path().filename().string()))
                    found.push_back(entry.path());
            }
        }
        return found;
    }

    std::vector<fs::path> blockFiles() const
    {
        return filesInCache([](const std::string& name) {
            return std::count(name.begin(), name.end(), '-') == 15;
        });
    }

    std::vector<fs::path> marks() const
    {
        return filesInCache(
            [](const std::string& name) { return name.rfind("zebtdx-unfinished-", 0) == 0; });
    }

    // As if the process that wrote the cache had been killed before its end.
    void leaveMarks() const
    {
        fs::remove(m_Tree.path("m"));
        // The manifest cannot be written while a directory has its name.
        m_Tree.directory("m");
        EXPECT_EQ(ingest().m_Status, 1);
        fs::remove(m_Tree.path("m"));
        ASSERT_THAT(marks(), SizeIs(2));
    }

    // Whether the block of this file lists the blocks of one of the files.
    static bool isList(const fs::path& file)
    {
        std::ifstream stream(file, std::ios::binary);
        quint64 size = 0;
        stream.read(reinterpret_cast<char*>(&size), sizeof size);
        return size == 16 || size == 16 + 3 * 64;
    }

    // Other bytes in the payload, of the same length, as after a power loss.
    static void changeBytes(const fs::path& file)
    {
        std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
        stream.seekp(s_PayloadOffset + 8);
        stream.write("\x55\x55\x55\x55", 4);
        EXPECT_TRUE(stream.good());
    }

    TemporaryTree m_Tree;
};

TEST_F(IngestInterrupted, TruncatedBlockFilesAreWrittenAgain)
{
    ASSERT_EQ(ingest().m_Status, 0);
    ASSERT_EQ(blockFiles().size(), 3U + 3 + 3);
    for (const qint64 kept : {0, 12, 13, 30, -1}) {
        for (const fs::path& file : blockFiles()) {
            const auto size = static_cast<qint64>(fs::file_size(file));
            fs::resize_file(file, static_cast<std::uintmax_t>(kept < 0 ? size + kept : kept));
        }
        const Outcome again = ingest({"--no-check"});
        EXPECT_EQ(again.m_Status, 0) << kept << again.m_Errors;
        EXPECT_EQ(whyNotRestored(), "") << kept;
    }
    EXPECT_THAT(marks(), IsEmpty());
}

TEST_F(IngestInterrupted, TruncatedListsOfBlocksAreWrittenAgain)
{
    ASSERT_EQ(ingest().m_Status, 0);
    std::vector<fs::path> lists = blockFiles();
    lists.erase(std::remove_if(lists.begin(), lists.end(),
                               [](const fs::path& file) { return !isList(file); }),
                lists.end());
    ASSERT_EQ(lists.size(), 3U);
    for (const fs::path& file : lists)
        fs::resize_file(file, fs::file_size(file) - 1);
    const Outcome again = ingest();
    EXPECT_EQ(again.m_Status, 0) << again.m_Errors;
    EXPECT_EQ(again.number("rewritten_blocks"), 3);
    EXPECT_THAT(again.m_Errors, HasSubstr("3 damaged or missing block files were written again"));
    EXPECT_EQ(whyNotRestored(), "");
}

TEST_F(IngestInterrupted, OtherBytesOfTheSameLengthAreFoundByTheComparison)
{
    ASSERT_EQ(ingest().m_Status, 0);
    changeBytes(blockFiles().front());
    const Outcome found = ingest();
    EXPECT_EQ(found.m_Status, 1);
    EXPECT_THAT(found.m_Errors, HasSubstr("zebtdx: in/"));
    EXPECT_THAT(marks(), SizeIs(2)) << "the next ingest must check in full";
    const Outcome again = ingest();
    EXPECT_EQ(again.m_Status, 0) << again.m_Errors;
    EXPECT_EQ(again.number("rewritten_blocks"), 1);
    EXPECT_EQ(whyNotRestored(), "");
    EXPECT_THAT(marks(), IsEmpty());
}

TEST_F(IngestInterrupted, AMarkMakesTheNextIngestCheckEveryBlockFileInFull)
{
    leaveMarks();
    for (const fs::path& file : blockFiles())
        changeBytes(file);
    const Outcome again = ingest({"--no-check"});
    EXPECT_EQ(again.m_Status, 0) << again.m_Errors;
    EXPECT_EQ(again.number("rewritten_blocks"), 9);
    EXPECT_THAT(again.m_Errors, HasSubstr("this ingest has not finished before; its block files "
                                          "are checked in full\n"));
    EXPECT_EQ(whyNotRestored(), "");
    EXPECT_THAT(marks(), IsEmpty());
}

TEST_F(IngestInterrupted, AFullCheckIsAlsoMadeOnRequest)
{
    ASSERT_EQ(ingest().m_Status, 0);
    changeBytes(blockFiles().front());
    const Outcome again = ingest({"--no-check", "--verify"});
    EXPECT_EQ(again.m_Status, 0) << again.m_Errors;
    EXPECT_EQ(again.number("rewritten_blocks"), 1);
    EXPECT_EQ(whyNotRestored(), "");
}

TEST_F(IngestInterrupted, AnotherIngestChecksInFullAndLeavesTheMark)
{
    leaveMarks();
    for (const fs::path& file : blockFiles())
        changeBytes(file);
    const Outcome other = runTool({"ingest", "in/random", "--json", "--block", "4K", "--root", "r1",
                                   "--root", "r2", "--manifest", "m2", "--no-check"},
                                  m_Tree.top());
    EXPECT_EQ(other.m_Status, 0) << other.m_Errors;
    EXPECT_EQ(other.number("rewritten_blocks"), 4) << "what both ingests have in common";
    EXPECT_THAT(other.m_Errors, HasSubstr("is the mark of an ingest that has not finished, with "
                                          "the manifest " +
                                          m_Tree.path("m") + "; run that ingest again"));
    EXPECT_THAT(marks(), SizeIs(2));
    EXPECT_EQ(ingest({"--no-check"}).number("rewritten_blocks"), 5);
    EXPECT_EQ(whyNotRestored(), "");
    EXPECT_THAT(marks(), IsEmpty());
}

TEST_F(IngestInterrupted, OtherCommandsReportTheMarkAndLeaveIt)
{
    ASSERT_EQ(ingest().m_Status, 0);
    fs::copy(m_Tree.path("m"), m_Tree.path("kept"));
    leaveMarks();
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{"verify", "--root", "r1", "--root", "r2"},
          {"repair", "--root", "r1", "--root", "r2"},
          {"stat", "--root", "r1", "--root", "r2"},
          {"gc", "kept", "--apply"}}) {
        std::vector<std::string> whole = command;
        whole.push_back("--json");
        const Outcome outcome = runTool(whole, m_Tree.top());
        EXPECT_EQ(outcome.m_Status, 0) << command[0] << outcome.m_Errors;
        EXPECT_THAT(outcome.m_Errors, HasSubstr("r2/main/zebtdx-unfinished-")) << command[0];
        EXPECT_THAT(outcome.m_Errors,
                    HasSubstr("is the mark of an ingest that has not finished, with the manifest " +
                              m_Tree.path("m")));
        if (command[0] != "gc") {
            EXPECT_EQ(outcome.number("unexpected"), 0) << command[0];
            EXPECT_EQ(outcome.number("unfinished"), 2) << command[0];
        }
    }
    EXPECT_THAT(marks(), SizeIs(2));
    EXPECT_EQ(runTool({"probe", "--root", "r1", "--root", "r2"}, m_Tree.top()).m_Status, 0);
}

TEST_F(IngestInterrupted, ARepairThatLeavesNoDamageRemovesTheMark)
{
    leaveMarks();
    for (const fs::path& file : blockFiles())
        changeBytes(file);
    const auto repair = [this](const std::vector<std::string>& options) {
        std::vector<std::string> whole = {"repair", "--root",       "r1",   "--root",
                                          "r2",     "--quarantine", "aside"};
        whole.insert(whole.end(), options.begin(), options.end());
        return runTool(whole, m_Tree.top()).m_Status;
    };
    EXPECT_EQ(repair({}), 1);
    EXPECT_THAT(marks(), SizeIs(2));
    EXPECT_EQ(repair({"--apply"}), 0);
    EXPECT_THAT(marks(), IsEmpty());
    EXPECT_THAT(blockFiles(), IsEmpty());
    EXPECT_EQ(ingest({"--no-check"}).m_Status, 0);
    EXPECT_EQ(whyNotRestored(), "");
}

TEST_F(IngestInterrupted, ADirectoryInThePlaceOfABlockIsAnError)
{
    ASSERT_EQ(ingest().m_Status, 0);
    const fs::path file = blockFiles().front();
    fs::remove(file);
    fs::create_directory(file);
    const Outcome again = ingest({"--no-check"});
    EXPECT_EQ(again.m_Status, 1);
    EXPECT_THAT(again.m_Errors, HasSubstr(file.filename().string()));
    EXPECT_TRUE(fs::is_directory(file));
}

// Permissions, for example, say nothing about the bytes.
TEST_F(IngestInterrupted, BlockFilesThatCannotBeReadStay)
{
    ASSERT_EQ(ingest().m_Status, 0);
    const std::vector<fs::path> files = blockFiles();
    runShell("chmod -R a+rwX .", m_Tree.top());
    fs::resize_file(files.front(), fs::file_size(files.front()) - 1);
    for (std::size_t i = 1; i < files.size(); ++i)
        fs::permissions(files[i], fs::perms::none);
    const Outcome again = runUnprivileged(line({"--verify", "--no-check"}), m_Tree.top());
    EXPECT_EQ(again.m_Status, 1);
    EXPECT_THAT(again.m_Errors, HasSubstr("is not stored: the file of one of its blocks could not "
                                          "be checked (Permission denied): "));
    EXPECT_THAT(marks(), SizeIs(2));
    for (std::size_t i = 1; i < files.size(); ++i) {
        ASSERT_TRUE(fs::exists(files[i])) << files[i];
        EXPECT_EQ(fs::status(files[i]).permissions(), fs::perms::none) << "not written again";
        fs::permissions(files[i], fs::perms::all);
    }
    EXPECT_EQ(again.number("rewritten_blocks"), 1);
    EXPECT_EQ(ingest().m_Status, 0);
    EXPECT_EQ(whyNotRestored(), "");
}

TEST_F(IngestInterrupted, AManifestInADirectoryThatCannotBeListedIsComplete)
{
    runShell("mkdir w && chmod -R a+rwX . && chmod 333 w", m_Tree.top());
    const Outcome outcome = runUnprivileged(
        {"ingest", "in", "--root", "r1", "--manifest", "w/m", "--no-check"}, m_Tree.top());
    EXPECT_EQ(outcome.m_Status, 0) << outcome.m_Errors;
    EXPECT_TRUE(fs::exists(m_Tree.path("w/m")));
    EXPECT_THAT(marks(), IsEmpty());
    runShell("chmod 777 w", m_Tree.top());
}

// The outcome depends on the moment of each kill, and must be right for all of them.
TEST_F(IngestInterrupted, AnyKillIsRepairedByTheSameCommand)
{
    constexpr int kills = 4;
    constexpr int longestMs = 120;
    m_Tree.file("in/large", mixedBytes(1000000, 5));
    std::mt19937 random(std::random_device{}());
    for (int i = 0; i < kills; ++i) {
        for (const char* const name : {"r1", "r2", "m", "out"})
            fs::remove_all(m_Tree.path(name));
        QProcess process;
        setLanguage(process);
        process.setWorkingDirectory(QString::fromStdString(m_Tree.top()));
        process.start(QStringLiteral(ZEBTDX_PROGRAM), asArguments(line({"--no-check"})));
        ASSERT_TRUE(process.waitForStarted(s_ProgramDeadlineMs));
        const int delayMs = std::uniform_int_distribution<int>(0, longestMs)(random);
        if (!process.waitForFinished(delayMs))
            process.kill();
        process.waitForFinished(s_ProgramDeadlineMs);
        const bool isUnfinished = process.exitStatus() != QProcess::NormalExit;
        EXPECT_TRUE(isUnfinished || marks().empty()) << delayMs;
        const Outcome again = ingest({"--no-check"});
        EXPECT_EQ(again.m_Status, 0) << delayMs << again.m_Errors;
        EXPECT_EQ(whyNotRestored(), "") << delayMs;
        EXPECT_THAT(marks(), IsEmpty());
    }
}
