#include "tools/cache/CacheVerifier.h"

#include "tools/cache/CacheWarnings.h"

#include "support/BlockBytes.h"
#include "support/TemporaryTree.h"
#include "tools/support/ErrorLines.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>

#include <sys/stat.h>

namespace {

constexpr int s_Files = 100;

class CacheVerifierTest : public ::testing::Test
{
protected:
    // A root with one bucket: no name is out of place.
    void SetUp() override
    {
        m_Tree.directory("r");
        m_Tree.directory("r/0");
        m_Place.m_Roots = {m_Tree.path("r")};
        m_Place.m_Buckets = 1;
        for (unsigned int i = 0; i < s_Files; ++i) {
            const QByteArray content = QByteArray::fromStdString(mixedBytes(1000 + i, i));
            m_Names.push_back("r/0/" + blockNameOf(content));
            m_Tree.file(m_Names.back(), blockFileOf(content));
        }
    }

    std::set<std::string> damaged(const CacheVerifier::Options& options)
    {
        const CacheFiles files(m_Place, true, m_Errors.report(), m_Warnings);
        CacheVerifier verification(options, files, m_Errors.report(), m_Warnings,
                                   m_Errors.progress());
        verification.run();
        m_Checked = verification.files();
        m_Bytes = verification.bytes();
        std::set<std::string> paths;
        for (const CacheVerifier::Damage& damage : verification.damage())
            paths.insert(files.pathOf(files.files()[damage.m_File]));
        return paths;
    }

    CacheVerifier::Options options(int threads)
    {
        CacheVerifier::Options options;
        options.m_Threads = threads;
        return options;
    }

    TemporaryTree m_Tree;
    ErrorLines m_Errors;
    CacheWarnings m_Warnings{m_Errors.report()};
    StorePlace m_Place;
    std::vector<std::string> m_Names;
    qint64 m_Checked = 0;
    qint64 m_Bytes = 0;
};

} // namespace

TEST_F(CacheVerifierTest, AnyNumberOfThreadsFindsTheSame)
{
    std::set<std::string> expected;
    for (std::size_t i = 0; i < m_Names.size(); i += 7) {
        m_Tree.resize(m_Names[i], 500);
        expected.insert(m_Tree.path(m_Names[i]));
    }
    for (const int threads : {1, 2, 5, 64}) {
        EXPECT_EQ(damaged(options(threads)), expected) << threads;
        EXPECT_EQ(m_Checked, s_Files);
    }
    EXPECT_EQ(m_Errors.report().count(), 0) << "damage is no error of the check";
    EXPECT_EQ(m_Errors.lines().size(), 4 * expected.size());
}

TEST_F(CacheVerifierTest, WritableFilesAreWarningsWhereverTheyLie)
{
    m_Tree.file(m_Names[3], "not a block at all");
    m_Tree.directory("r/1");
    const std::string misplaced = "r/1/" + blockNameOf("elsewhere");
    m_Tree.file(misplaced, blockFileOf("elsewhere"));
    for (const std::string& name : {m_Names[5], misplaced})
        ASSERT_EQ(::chmod(m_Tree.path(name).c_str(), 0666), 0);
    CacheVerifier::Options fast = options(2);
    fast.m_Fast = true;
    EXPECT_EQ(damaged(fast).size(), 2U);
    EXPECT_EQ(m_Warnings.count(CacheWarnings::Writable), 2);
    qint64 bytes = 0;
    for (const std::string& name : m_Names)
        bytes += static_cast<qint64>(std::filesystem::file_size(m_Tree.path(name)));
    bytes += static_cast<qint64>(std::filesystem::file_size(m_Tree.path(misplaced)));
    EXPECT_EQ(m_Bytes, bytes);
}

TEST_F(CacheVerifierTest, TheLargestBlockLimitIsInclusive)
{
    CacheVerifier::Options narrow = options(8);
    narrow.m_LargestBlock = 1000 + s_Files - 1;
    EXPECT_TRUE(damaged(narrow).empty());
    --narrow.m_LargestBlock;
    EXPECT_EQ(damaged(narrow).size(), 1U) << "one is larger";
}

TEST_F(CacheVerifierTest, RepeatedSamplesReachAllFiles)
{
    for (const std::string& name : m_Names)
        m_Tree.resize(name, 500);
    CacheVerifier::Options sample = options(2);
    sample.m_Percent = 20;
    std::set<std::string> seen;
    for (int i = 0; i < 400 && seen.size() < s_Files; ++i) {
        const std::set<std::string> found = damaged(sample);
        EXPECT_EQ(found.size(), 20U);
        seen.insert(found.begin(), found.end());
    }
    EXPECT_EQ(seen.size(), s_Files);
}

TEST_F(CacheVerifierTest, AFileThatCannotBeOpenedIsAnErrorNotDamage)
{
    const CacheFiles files(m_Place, true, m_Errors.report(), m_Warnings);
    // Something else has come into the place of a file since the folder was listed.
    m_Tree.remove(m_Names[0]);
    m_Tree.remove(m_Names[1]);
    m_Tree.link(m_Names[1], "elsewhere");
    CacheVerifier verification(options(2), files, m_Errors.report(), m_Warnings,
                               m_Errors.progress());
    verification.run();
    EXPECT_TRUE(verification.damage().empty());
    EXPECT_EQ(m_Warnings.count(CacheWarnings::Changed), 1);
    EXPECT_EQ(m_Errors.report().count(), 1);
}
