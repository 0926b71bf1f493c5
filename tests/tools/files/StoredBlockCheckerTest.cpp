// What an ingest does with damaged block files before their blocks are written again.

#include "tools/files/StoredBlockChecker.h"
#include "data/ZebDataReference.h"
#include "tools/files/FileIngester.h"
#include "tools/files/FileWalker.h"
#include "tools/files/StoredFiles.h"

#include "support/TemporaryTree.h"
#include "tools/support/ErrorLines.h"
#include "tools/support/StoreFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>

using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

namespace fs = std::filesystem;

constexpr qint64 s_BlockSize = 1024;
constexpr int s_Threads = 2;

} // namespace

class StoredBlockCheckerTest : public StoreFixture
{
protected:
    void store()
    {
        FileWalker walk(m_Errors.report());
        walk.add(m_Tree.top());
        FileIngester ingester({s_BlockSize, s_Threads, s_Memory}, toolStore(), m_Errors.report(),
                              m_Errors.progress());
        m_Stored.emplace(ingester.run(walk));
        toolStore().flush(m_Errors.report());
    }

    // Returns how many were written again.
    qint64 check()
    {
        StoredBlockChecker checker({s_Threads, false}, toolStore(), m_Errors.report(),
                                   m_Errors.progress());
        checker.run(*m_Stored);
        return checker.rewritten();
    }

    std::string firstBlock()
    {
        return toolStore().pathOf(m_Stored->m_Segments.front().m_Blocks.front());
    }

    void TearDown() override
    {
        m_Stored.reset();
        StoreFixture::TearDown();
    }

    TemporaryTree m_Tree;
    ErrorLines m_Errors;
    std::optional<StoredFiles> m_Stored;
};

TEST_F(StoredBlockCheckerTest, EveryDamagedBlockIsWrittenAgain)
{
    constexpr int files = 4;
    constexpr std::size_t blocks = 100;
    for (unsigned int i = 0; i < files; ++i)
        m_Tree.file("f" + std::to_string(i), mixedBytes(blocks * s_BlockSize, i));
    store();
    qint64 damaged = 0;
    for (const StoredSegment& segment : m_Stored->m_Segments) {
        for (const ZebDataReference& block : segment.m_Blocks) {
            fs::resize_file(toolStore().pathOf(block), 20);
            ++damaged;
        }
    }
    ASSERT_EQ(damaged, files * static_cast<qint64>(blocks));
    EXPECT_EQ(check(), damaged);
    EXPECT_EQ(check(), 0);
    EXPECT_THAT(m_Errors.lines(), ElementsAre(HasSubstr("400 damaged or missing block files")));
}

// The other bytes of the damaged file may be all that is left.
TEST_F(StoredBlockCheckerTest, ADamagedFileStaysWhenItsBytesAreNotInTheSourceAnyMore)
{
    m_Tree.file("f", mixedBytes(s_BlockSize, 1));
    store();
    const std::string path = firstBlock();
    fs::resize_file(path, 20);
    m_Tree.file("f", mixedBytes(s_BlockSize, 2));
    EXPECT_EQ(check(), 0);
    ASSERT_TRUE(fs::exists(path));
    EXPECT_EQ(fs::file_size(path), 20U);
    EXPECT_THAT(m_Errors.lines(),
                ElementsAre(HasSubstr("f: is not stored: the file of one of its blocks is shorter "
                                      "than its header says")));
    EXPECT_THAT(m_Errors.lines().front(), HasSubstr(", and cannot be written again: " + path));
    EXPECT_TRUE(m_Stored->m_Files.front().m_Group.isNull());
}
