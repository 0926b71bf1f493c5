// Both passes of an ingest, with what may happen to files before, between and during them.

#include "tools/files/FileComparer.h"
#include "manager/ZebDataBlockManager.h"
#include "tools/commands/IngestSummary.h"
#include "tools/files/FileIngester.h"
#include "tools/files/FileWalker.h"

#include "support/TemporaryTree.h"
#include "support/WaitUntil.h"
#include "tools/support/ErrorLines.h"
#include "tools/support/StoreFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr qint64 s_BlockSize = 1024;
// Large files are cut into pieces of this size for the threads.
constexpr qint64 s_PieceSize = 4 * 1024 * 1024;

// A dropped block is evicted once no disk thread uses it any more.
bool comesToLiveBytes(qint64 bytes)
{
    return waitUntil([bytes] { return ZebDataBlockManager::instance().liveBytes() == bytes; });
}

// The size of the block that lists the blocks of a file.
qint64 groupBytes(qint64 blocks)
{
    return 16 + 64 * blocks;
}

} // namespace

class IngestPassesTest : public StoreFixture
{
protected:
    // Finds the files of the tree.
    void find()
    {
        m_Walk.emplace(m_Errors.report());
        m_Walk->add(m_Tree.top());
    }

    void store(int threads = 4, qint64 blockSize = s_BlockSize, qint64 memory = s_Memory)
    {
        ZebDataBlockManager::instance().setMaxDataCacheSize(memory);
        FileIngester storing({blockSize, threads, memory}, toolStore(), m_Errors.report(),
                             m_Errors.progress());
        m_Stored.emplace(storing.run(*m_Walk));
    }

    // Reads back, compares and counts.
    IngestSummary check(int threads = 4)
    {
        FileComparer checking(threads, toolStore(), m_Errors.report(), m_Errors.progress());
        checking.run(*m_Stored);
        IngestSummary summary;
        summary.count(*m_Stored);
        summary.m_ReadBackBytes = checking.bytes();
        summary.m_Differences = checking.differences();
        summary.m_Errors = m_Errors.report().count();
        return summary;
    }

    // The error lines, with paths relative to the tree.
    std::vector<std::string> errorLines() const
    {
        std::vector<std::string> lines = m_Errors.lines();
        const std::string prefix = m_Tree.top() + "/";
        for (std::string& line : lines) {
            const std::size_t at = line.find(prefix);
            if (at != std::string::npos)
                line.erase(at, prefix.size());
        }
        return lines;
    }

    void TearDown() override
    {
        m_Stored.reset();
        EXPECT_TRUE(comesToLiveBytes(0));
        StoreFixture::TearDown();
    }

    TemporaryTree m_Tree;
    ErrorLines m_Errors;
    std::optional<FileWalker> m_Walk;
    std::optional<StoredFiles> m_Stored;
};

TEST_F(IngestPassesTest, FilesAreCutIntoBlocksAndComeBackEqual)
{
    m_Tree.file("a-exact", mixedBytes(2048, 1));
    m_Tree.file("b-rest", mixedBytes(2049, 1));
    m_Tree.file("c-short", "abc");
    m_Tree.file("d-empty", "");
    find();
    store();
    const IngestSummary summary = check();
    EXPECT_EQ(summary.m_Files, 4);
    EXPECT_EQ(summary.m_Bytes, 2048 + 2049 + 3);
    EXPECT_EQ(summary.m_ReadBackBytes, summary.m_Bytes);
    EXPECT_EQ(summary.m_Blocks, 2 + 3 + 1);
    EXPECT_EQ(summary.m_DistinctBlocks, 2 + 1 + 1);
    EXPECT_EQ(summary.m_DistinctBytes, 2048 + 1 + 3);
    EXPECT_EQ(summary.savedBytes(), 2048);
    EXPECT_EQ(ZebDataBlockManager::instance().liveBytes(), summary.m_DistinctBytes + groupBytes(2) +
                                                               groupBytes(3) + groupBytes(1) +
                                                               groupBytes(0));
    EXPECT_THAT(m_Errors.lines(), IsEmpty());
}

TEST_F(IngestPassesTest, ALargeFileIsTheSameForAnyNumberOfThreads)
{
    const qint64 size = 2 * s_PieceSize + 12345;
    m_Tree.file("large", mixedBytes(static_cast<std::size_t>(size), 7));
    find();
    for (const int threads : {1, 3, 8}) {
        store(threads, 65536);
        const IngestSummary summary = check(threads);
        EXPECT_EQ(summary.m_Files, 1);
        EXPECT_EQ(summary.m_Bytes, size);
        EXPECT_EQ(summary.m_ReadBackBytes, size);
        EXPECT_EQ(summary.m_Blocks, size / 65536 + 1);
        EXPECT_EQ(summary.m_DistinctBlocks, summary.m_Blocks);
        m_Stored.reset();
    }
    EXPECT_THAT(m_Errors.lines(), IsEmpty());
}

TEST_F(IngestPassesTest, FilesAtTheEdgesOfPiecesAreWhole)
{
    for (const qint64 size : {s_PieceSize - 1, s_PieceSize, s_PieceSize + 1, 2 * s_PieceSize}) {
        m_Tree.file("f", std::string(static_cast<std::size_t>(size), 'x'));
        find();
        store(4, 65536);
        const IngestSummary summary = check();
        EXPECT_EQ(summary.m_Files, 1) << size;
        EXPECT_EQ(summary.m_Bytes, size);
        EXPECT_EQ(summary.m_ReadBackBytes, size);
        EXPECT_EQ(summary.m_Blocks, (size + 65535) / 65536);
        m_Stored.reset();
    }
    EXPECT_THAT(m_Errors.lines(), IsEmpty());
}

TEST_F(IngestPassesTest, ABlockMayBeLargerThanAPiece)
{
    const qint64 size = 3 * s_PieceSize;
    m_Tree.file("f", mixedBytes(static_cast<std::size_t>(size), 3));
    find();
    store(4, 2 * s_PieceSize);
    const IngestSummary summary = check();
    EXPECT_EQ(summary.m_Blocks, 2);
    EXPECT_EQ(summary.m_ReadBackBytes, size);
    EXPECT_THAT(m_Errors.lines(), IsEmpty());
}

TEST_F(IngestPassesTest, ABlockMayBeOneByte)
{
    m_Tree.file("f", "abcabca");
    find();
    store(4, 1);
    const IngestSummary summary = check();
    EXPECT_EQ(summary.m_Blocks, 7);
    EXPECT_EQ(summary.m_DistinctBlocks, 3);
    EXPECT_EQ(summary.m_ReadBackBytes, 7);
    EXPECT_THAT(m_Errors.lines(), IsEmpty());
}

TEST_F(IngestPassesTest, AFileThatVanishesBeforeItIsStoredFailsAlone)
{
    m_Tree.file("a", "1");
    m_Tree.file("b", "22");
    find();
    m_Tree.remove("a");
    store();
    const IngestSummary summary = check();
    EXPECT_EQ(summary.m_Files, 1);
    EXPECT_EQ(summary.m_Bytes, 2);
    EXPECT_EQ(summary.m_Differences, 0);
    EXPECT_THAT(errorLines(), ElementsAre("zebtdx: a: No such file or directory"));
}

TEST_F(IngestPassesTest, AFileThatGrowsBeforeItIsStoredIsStoredWhole)
{
    m_Tree.file("f", "short");
    find();
    const std::string more = mixedBytes(100000, 2);
    m_Tree.append("f", more);
    store();
    const IngestSummary summary = check();
    EXPECT_EQ(summary.m_Files, 1);
    EXPECT_EQ(summary.m_Bytes, 100005);
    EXPECT_EQ(summary.m_ReadBackBytes, 100005);
    EXPECT_THAT(m_Errors.lines(), IsEmpty());
}

TEST_F(IngestPassesTest, AFileThatFailsHalfWayLeavesNothingBehind)
{
    // Its first piece is there in full, the second one is not.
    const qint64 size = 3 * s_PieceSize;
    m_Tree.file("large", mixedBytes(static_cast<std::size_t>(size), 4));
    m_Tree.file("small", "abc");
    find();
    m_Tree.resize("large", s_PieceSize + 5);
    store(1);
    EXPECT_TRUE(comesToLiveBytes(3 + groupBytes(1)));
    const IngestSummary summary = check();
    EXPECT_EQ(summary.m_Files, 1);
    EXPECT_EQ(summary.m_Bytes, 3);
    EXPECT_EQ(summary.m_Blocks, 1);
    EXPECT_THAT(errorLines(), ElementsAre("zebtdx: large: became shorter while it was being read; "
                                          "ingest it again"));
}

TEST_F(IngestPassesTest, AFileThatChangesAfterwardsIsADifference)
{
    m_Tree.file("same", "12345");
    m_Tree.file("changed", "12345");
    m_Tree.setModified("changed", 1000);
    find();
    store();
    m_Tree.file("changed", "12x45");
    const IngestSummary summary = check();
    EXPECT_EQ(summary.m_Files, 2);
    EXPECT_EQ(summary.m_Differences, 1);
    EXPECT_EQ(summary.m_Errors, 1);
    EXPECT_EQ(summary.m_ReadBackBytes, 5);
    EXPECT_THAT(errorLines(),
                ElementsAre("zebtdx: changed: changed after it was stored; ingest it again"));
}

TEST_F(IngestPassesTest, AnUntouchedFileThatDiffersPointsAtTheStore)
{
    m_Tree.file("f", "12345");
    m_Tree.setModified("f", 1000);
    find();
    store();
    // As if the store gave other bytes back: to the system, the file is as it was.
    m_Tree.file("f", "12x45");
    m_Tree.setModified("f", 1000);
    EXPECT_EQ(check().m_Differences, 1);
    EXPECT_THAT(errorLines(),
                ElementsAre("zebtdx: f: differs from the bytes in the store; run zebtdx verify"));
}

TEST_F(IngestPassesTest, GrowingAndShrinkingAfterwardsAreDifferences)
{
    m_Tree.file("a-grown", std::string(1024, 'x'));
    m_Tree.file("b-shrunk", std::string(1025, 'x'));
    m_Tree.file("c-emptied", "x");
    m_Tree.file("d-filled", "");
    find();
    store(1);
    m_Tree.append("a-grown", "y");
    m_Tree.resize("b-shrunk", 1024);
    m_Tree.resize("c-emptied", 0);
    m_Tree.append("d-filled", "y");
    EXPECT_EQ(check(1).m_Differences, 4);
    EXPECT_THAT(errorLines(),
                ElementsAre("zebtdx: a-grown: changed after it was stored; ingest it again",
                            "zebtdx: b-shrunk: changed after it was stored; ingest it again",
                            "zebtdx: c-emptied: changed after it was stored; ingest it again",
                            "zebtdx: d-filled: changed after it was stored; ingest it again"));
}

TEST_F(IngestPassesTest, VanishingOrBecomingSomethingElseAfterwardsIsAnError)
{
    m_Tree.file("a-vanished", "x");
    m_Tree.file("b-folder", "x");
    m_Tree.file("c-pipe", "x");
    m_Tree.file("d-empty", "");
    find();
    store(1);
    for (const char* const name : {"a-vanished", "b-folder", "c-pipe", "d-empty"})
        m_Tree.remove(name);
    m_Tree.directory("b-folder");
    m_Tree.pipe("c-pipe");
    const IngestSummary summary = check(1);
    EXPECT_EQ(summary.m_Errors, 4);
    EXPECT_EQ(summary.m_Differences, 0);
    EXPECT_EQ(summary.m_ReadBackBytes, 0);
    EXPECT_THAT(errorLines(),
                ElementsAre("zebtdx: a-vanished: No such file or directory",
                            "zebtdx: b-folder: is a directory", "zebtdx: c-pipe: is a named pipe",
                            "zebtdx: d-empty: No such file or directory"));
}

TEST_F(IngestPassesTest, AFileThatWasOnlyTouchedIsNoDifference)
{
    m_Tree.file("f", "12345");
    m_Tree.setModified("f", 1000);
    find();
    store();
    m_Tree.setModified("f", 2000);
    EXPECT_EQ(check().m_Errors, 0);
}

TEST_F(IngestPassesTest, ManyDifferencesInOneFileAreReportedOnce)
{
    const auto size = static_cast<std::size_t>(3 * s_PieceSize);
    m_Tree.file("f", std::string(size, 'x'));
    m_Tree.setModified("f", 1000);
    find();
    store(4, 65536);
    m_Tree.file("f", std::string(size, 'y'));
    EXPECT_EQ(check(8).m_Differences, 1);
    EXPECT_THAT(errorLines(),
                ElementsAre("zebtdx: f: changed after it was stored; ingest it again"));
}

TEST_F(IngestPassesTest, ABlockThatTheStoreHasLostIsAnError)
{
    m_Tree.file("f", "12345");
    find();
    store();
    // Only the hash of the block is left; its bytes are nowhere.
    const ZebDataReference reference = m_Stored->m_Segments.front().m_Blocks.front();
    StoreFixture::TearDown();
    StoreFixture::SetUp();
    ASSERT_FALSE(reference.isInMemory());
    const IngestSummary summary = check();
    EXPECT_EQ(summary.m_Errors, 1);
    EXPECT_EQ(summary.m_ReadBackBytes, 0);
    EXPECT_THAT(errorLines(), ElementsAre("zebtdx: f: its list of blocks is not in the cache"));
}

TEST_F(IngestPassesTest, BlocksAreReadFromTheDisk)
{
    m_Tree.file("a", "12345");
    m_Tree.file("b", "67890");
    find();
    store();
    toolStore().flush(m_Errors.report());
    const auto pathOf = [this](std::size_t segment) {
        return toolStore().pathOf(m_Stored->m_Segments[segment].m_Blocks.front());
    };
    std::filesystem::copy_file(pathOf(0), pathOf(1),
                               std::filesystem::copy_options::overwrite_existing);
    const IngestSummary summary = check();
    EXPECT_EQ(summary.m_Differences, 1);
    EXPECT_EQ(summary.m_ReadBackBytes, 5);
    EXPECT_THAT(errorLines(),
                ElementsAre("zebtdx: b: differs from the bytes in the store; run zebtdx verify"));
}

TEST_F(IngestPassesTest, ListsOfBlocksAreReadFromTheDisk)
{
    m_Tree.file("a", "12345");
    m_Tree.file("b", "67890");
    find();
    store();
    toolStore().flush(m_Errors.report());
    std::filesystem::copy_file(toolStore().pathOf(m_Stored->m_Files[0].m_Group),
                               toolStore().pathOf(m_Stored->m_Files[1].m_Group),
                               std::filesystem::copy_options::overwrite_existing);
    EXPECT_EQ(check().m_ReadBackBytes, 5);
    EXPECT_THAT(errorLines(), ElementsAre("zebtdx: b: its list of blocks is damaged in the cache; "
                                          "run zebtdx verify"));
}

TEST_F(IngestPassesTest, TheGroupOfAFileListsItsBlocksInOrder)
{
    const qint64 size = s_PieceSize + 1;
    m_Tree.file("a", std::string(static_cast<std::size_t>(size), 'x'));
    m_Tree.file("b-empty", "");
    find();
    store(4, 65536);
    const StoredFile& file = m_Stored->m_Files[0];
    EXPECT_EQ(file.m_StoredBytes, size);
    QVector<ZebDataReference> expected;
    for (const StoredSegment& segment : m_Stored->m_Segments) {
        if (segment.m_File == 0) {
            for (const ZebDataReference& reference : segment.m_Blocks)
                expected.append(reference);
        }
    }
    ASSERT_EQ(expected.size(), s_PieceSize / 65536 + 1);
    EXPECT_EQ(ZebDataBlockManager::instance().extractGroupBlock(file.m_Group), expected);
    const ZebDataReference& empty = m_Stored->m_Files[1].m_Group;
    ASSERT_FALSE(empty.isNull());
    EXPECT_TRUE(ZebDataBlockManager::instance().extractGroupBlock(empty).isEmpty());
}

TEST_F(IngestPassesTest, AFileWhoseListOfBlocksIsTooLargeFailsAlone)
{
    m_Tree.file("a", std::string(1000, 'x'));
    m_Tree.file("b", std::string(10, 'x'));
    find();
    // Its list takes 64 bytes for each block of one byte.
    store(2, 1, 50000);
    const IngestSummary summary = check();
    EXPECT_EQ(summary.m_Bytes, 10);
    EXPECT_TRUE(m_Stored->m_Files[0].m_Group.isNull());
    EXPECT_FALSE(m_Stored->m_Files[1].m_Group.isNull());
    EXPECT_THAT(errorLines(), ElementsAre("zebtdx: a: has too many blocks: their list (62.5 KiB) "
                                          "is larger than the largest block; raise --block"));
}

TEST_F(IngestPassesTest, DataFarAboveTheMemoryLimitIsStoredAndReadBack)
{
    constexpr qint64 memory = 64 * 1024;
    for (int i = 0; i < 64; ++i)
        m_Tree.file("f" + std::to_string(i), mixedBytes(8 * 1024, static_cast<unsigned int>(i)));
    find();
    for (const int threads : {1, 8}) {
        store(threads, 1024, memory);
        EXPECT_LE(ZebDataBlockManager::instance().liveBytes(), memory);
        const IngestSummary summary = check(threads);
        EXPECT_EQ(summary.m_Files, 64);
        EXPECT_EQ(summary.m_ReadBackBytes, 64 * 8 * 1024);
        EXPECT_EQ(summary.m_Differences, 0);
        m_Stored.reset();
    }
    EXPECT_THAT(m_Errors.lines(), IsEmpty());
}
