// repair, and verify where they share the rules for the place of a file, in separate processes.

#include "support/BlockBytes.h"
#include "support/TemporaryTree.h"
#include "tools/support/ProgramRunner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

using ::testing::HasSubstr;

namespace {

namespace fs = std::filesystem;

class RepairProgram : public ::testing::Test
{
protected:
    // A cache of 82 files in two roots with 10 buckets each.
    void SetUp() override
    {
        m_Tree.file("in", mixedBytes(81 * 1024, 1));
        ASSERT_EQ(run({"ingest", "in", "--block", "1K", "--root", "r1", "--root", "r2",
                       "--manifest", "m"})
                      .m_Status,
                  0);
    }

    Outcome run(const std::vector<std::string>& line) const { return runTool(line, m_Tree.top()); }

    // On both roots in their order.
    Outcome onCache(std::vector<std::string> line) const
    {
        line.insert(line.end(), {"--root", "r1", "--root", "r2"});
        return run(line);
    }

    bool restores() const
    {
        fs::remove_all(m_Tree.path("out"));
        return run({"restore", "m", "--out", "out"}).m_Status == 0 &&
               runShell("cmp in out/in", m_Tree.top()).m_Output.empty();
    }

    // Moves a block file to a bucket where the store does not look for it.
    void misplaceFile() const
    {
        for (const auto& entry : fs::recursive_directory_iterator(m_Tree.path("r1/main/3"))) {
            fs::rename(entry.path(), m_Tree.path("r1/main/4/" + entry.path().filename().string()));
            return;
        }
        FAIL() << "the bucket is empty";
    }

    TemporaryTree m_Tree;
};

} // namespace

TEST_F(RepairProgram, AWrongNumberOfBucketsMovesNothing)
{
    // Half of the files are in place with a divisor or a multiple of the number.
    for (const char* const buckets : {"5", "20", "7", "1"}) {
        for (const char* const option : {"--apply", "--move-misplaced"}) {
            const Outcome outcome =
                onCache({"repair", "--apply", option, "--buckets", buckets, "--json"});
            EXPECT_EQ(outcome.m_Status, 2) << buckets;
            EXPECT_THAT(
                outcome.m_Errors,
                HasSubstr("82 of the 82 files in sub-cache main fit --buckets 10, but only "))
                << buckets;
        }
        EXPECT_TRUE(restores()) << buckets;
    }
}

TEST_F(RepairProgram, WrongRootsMoveNothing)
{
    m_Tree.directory("r3");
    for (const std::vector<std::string>& roots :
         {std::vector<std::string>{"r2", "r1"}, {"r1", "r2", "r3"}, {"r3", "r1", "r2"}}) {
        std::vector<std::string> line = {"repair", "--apply"};
        for (const std::string& root : roots)
            line.insert(line.end(), {"--root", root});
        const Outcome outcome = run(line);
        EXPECT_EQ(outcome.m_Status, 2) << outcome.m_Errors;
        EXPECT_THAT(
            outcome.m_Errors,
            HasSubstr("82 of the 82 files in sub-cache main fit --root r1 --root r2, but only "));
        EXPECT_TRUE(restores());
    }
}

TEST_F(RepairProgram, AMissingRootIsNamed)
{
    m_Tree.directory("r3");
    const Outcome outcome = run({"verify", "--root", "r3", "--root", "r1"});
    EXPECT_EQ(outcome.m_Status, 2) << outcome.m_Errors;
    EXPECT_THAT(outcome.m_Errors, HasSubstr(" files in sub-cache main fit --root r1 --root (a root "
                                            "that was not given), but only 0 fit what was given"));
}

TEST_F(RepairProgram, VerifyRefusesWhatDoesNotFit)
{
    const Outcome outcome = onCache({"verify", "--buckets", "5"});
    EXPECT_EQ(outcome.m_Status, 2) << outcome.m_Errors;
    EXPECT_THAT(outcome.m_Errors, HasSubstr(" fit --buckets 10, but only "));
    EXPECT_EQ(outcome.m_Output, "");
}

TEST_F(RepairProgram, AFewFilesProveNothingAndStay)
{
    m_Tree.file("few", mixedBytes(5 * 1024, 2));
    ASSERT_EQ(run({"ingest", "few", "--block", "1K", "--root", "r3", "--manifest", "m3"}).m_Status,
              0);
    const Outcome outcome = run({"repair", "--apply", "--root", "r3", "--buckets", "7", "--json"});
    EXPECT_GT(outcome.number("damaged_misplaced"), 0) << "each in the bucket of another number";
    EXPECT_EQ(outcome.number("moved"), 0);
    EXPECT_EQ(run({"restore", "m3", "--out", "out3"}).m_Status, 0);
}

TEST_F(RepairProgram, EachSubCacheHasItsOwnBuckets)
{
    ASSERT_EQ(onCache({"ingest", "in", "--block", "1K", "--buckets", "4", "--sub-cache", "part",
                       "--manifest", "m2"})
                  .m_Status,
              0);
    const Outcome outcome = onCache({"repair", "--apply", "--move-misplaced"});
    EXPECT_EQ(outcome.m_Status, 2);
    EXPECT_THAT(outcome.m_Errors,
                HasSubstr("82 of the 82 files in sub-cache part fit --buckets 4, but only "));
    EXPECT_EQ(onCache({"verify", "--sub-cache", "main"}).m_Status, 0);
    EXPECT_EQ(onCache({"verify", "--sub-cache", "part", "--buckets", "4"}).m_Status, 0);
}

TEST_F(RepairProgram, MisplacedFilesMoveOnTheirOwnOption)
{
    misplaceFile();
    const Outcome without = onCache({"repair", "--apply", "--json"});
    EXPECT_EQ(without.m_Status, 1) << without.m_Errors;
    EXPECT_EQ(without.number("damaged_misplaced"), 1);
    EXPECT_EQ(without.number("moved"), 0);
    EXPECT_THAT(onCache({"repair", "--apply"}).m_Output, HasSubstr("--move-misplaced"));
    const Outcome with = onCache({"repair", "--apply", "--move-misplaced", "--json"});
    EXPECT_EQ(with.m_Status, 0) << with.m_Errors;
    EXPECT_EQ(with.number("moved"), 1);
    EXPECT_FALSE(restores()) << "its block is missing now";
}

TEST_F(RepairProgram, ABlockThatTheHostCompressedIsSound)
{
    // Named by its compressed bytes.
    const QByteArray payload = qCompress(QByteArray::fromStdString(mixedBytes(5000, 7)), 9);
    const std::string name = blockNameOf(payload);
    m_Tree.directory("one");
    m_Tree.directory("one/0");
    m_Tree.file("one/0/" + name, blockFile(5000, payload.size(), payload));
    // And a large one, which is checked on its own.
    const QByteArray large = qCompress(QByteArray::fromStdString(mixedBytes(9 << 20, 8)), 1);
    m_Tree.file("one/0/" + blockNameOf(large), blockFile(9 << 20, large.size(), large));
    const std::vector<std::string> line = {"repair", "--apply", "--json", "--buckets",
                                           "1",      "--root",  "one"};
    const Outcome outcome = run(line);
    EXPECT_EQ(outcome.m_Status, 0) << outcome.m_Errors;
    EXPECT_EQ(outcome.number("damaged"), 0);
    EXPECT_EQ(outcome.number("moved"), 0);
    // Another sound payload under that name is damage.
    const QByteArray other = qCompress(QByteArray::fromStdString(mixedBytes(5000, 9)), 9);
    m_Tree.file("one/0/" + name, blockFile(5000, other.size(), other));
    EXPECT_EQ(run(line).number("damaged_digest_differs"), 1);
}
