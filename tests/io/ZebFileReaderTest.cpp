#include "io/ZebFileReader.h"

#include "support/TemporaryTree.h"

#include <gtest/gtest.h>

#include <cerrno>

#include <sys/stat.h>

TEST(ZebFileReader, ReadsBlocksAtAnyPlaceAndFewerBytesAtTheEnd)
{
    const TemporaryTree tree;
    tree.file("f", "0123456789");
    ZebFileReader reader;
    ASSERT_EQ(reader.open(tree.path("f")), 0);
    QByteArray block;
    EXPECT_EQ(reader.readBlock(4, 4, block), 0);
    EXPECT_EQ(block, QByteArray("4567"));
    EXPECT_EQ(reader.readBlock(8, 4, block), 0);
    EXPECT_EQ(block, QByteArray("89"));
    EXPECT_EQ(reader.readBlock(10, 4, block), 0);
    EXPECT_EQ(block.size(), 0);
    EXPECT_EQ(reader.readBlock(1000, 4, block), 0);
    EXPECT_EQ(block.size(), 0);
    EXPECT_EQ(reader.readBlock(0, 10, block), 0);
    EXPECT_EQ(block, QByteArray("0123456789"));
}

TEST(ZebFileReader, AllocatesForTheFileAndNotForTheRequest)
{
    const TemporaryTree tree;
    tree.file("f", "abc");
    ZebFileReader reader;
    ASSERT_EQ(reader.open(tree.path("f")), 0);
    QByteArray block;
    EXPECT_EQ(reader.readBlock(0, 0x7FFFFFFF, block), 0);
    EXPECT_EQ(block, QByteArray("abc"));
    EXPECT_LT(block.capacity(), 1024 * 1024);
}

TEST(ZebFileReader, SeesWhatWasAddedAfterItWasOpened)
{
    const TemporaryTree tree;
    const std::string content = mixedBytes(500000, 1);
    tree.file("f", "");
    ZebFileReader reader;
    ASSERT_EQ(reader.open(tree.path("f")), 0);
    tree.append("f", content);
    QByteArray block;
    EXPECT_EQ(reader.readBlock(0, 1000000, block), 0);
    EXPECT_EQ(block.toStdString(), content);
}

TEST(ZebFileReader, ReadsFilesWithoutASize)
{
    ZebFileReader reader;
    ASSERT_EQ(reader.open("/proc/self/status"), 0);
    EXPECT_EQ(reader.stamp().m_Size, 0);
    QByteArray block;
    EXPECT_EQ(reader.readBlock(0, 1000000, block), 0);
    EXPECT_TRUE(block.startsWith("Name:"));
}

TEST(ZebFileReader, OpenReturnsTheErrorNumber)
{
    const TemporaryTree tree;
    tree.directory("directory");
    tree.pipe("pipe");
    tree.socket("socket");
    tree.link("dangling", "nothing");
    tree.link("loop", "loop");
    tree.file("file", "x");
    ZebFileReader reader;
    EXPECT_EQ(reader.open(tree.path("missing")), ENOENT);
    EXPECT_EQ(reader.open(tree.path("dangling")), ENOENT);
    EXPECT_EQ(reader.open(tree.path("file/below")), ENOTDIR);
    EXPECT_EQ(reader.open(tree.path("loop")), ELOOP);
    EXPECT_EQ(reader.open(tree.path("file"), ZebFileReader::Links::Refuse), 0);
    EXPECT_EQ(reader.open(tree.path("loop"), ZebFileReader::Links::Refuse), ELOOP);
    EXPECT_EQ(reader.open(tree.path("directory")), ZebFileReader::s_NotRegular);
    // The pipe has no writer, so a plain open() would block.
    EXPECT_EQ(reader.open(tree.path("pipe")), ZebFileReader::s_NotRegular);
    EXPECT_TRUE(S_ISFIFO(reader.stamp().m_Mode));
    EXPECT_NE(reader.open(tree.path("socket")), 0);
    EXPECT_EQ(reader.open("/dev/null"), ZebFileReader::s_NotRegular);
}

TEST(ZebFileReader, ReadingReturnsTheErrorNumber)
{
    // A kernel file that opens, but whose first page is not readable.
    ZebFileReader reader;
    ASSERT_EQ(reader.open("/proc/self/mem"), 0);
    QByteArray block("old");
    EXPECT_EQ(reader.readBlock(0, 4096, block), EIO);
    EXPECT_TRUE(block.isEmpty());
}

TEST(ZebFileReader, TheStampDistinguishesStates)
{
    const TemporaryTree tree;
    tree.file("f", "abc");
    tree.setModified("f", 1000);
    const auto stampNow = [&tree] {
        ZebFileReader reader;
        EXPECT_EQ(reader.open(tree.path("f")), 0);
        return reader.stamp();
    };
    const ZebFileStamp first = stampNow();
    EXPECT_EQ(stampNow(), first);
    tree.setModified("f", 1001);
    EXPECT_NE(stampNow(), first);
    tree.file("f", "abcd");
    tree.setModified("f", 1000);
    EXPECT_NE(stampNow(), first);
    tree.file("f", "abc");
    tree.setModified("f", 1000);
    EXPECT_EQ(stampNow(), first);
    tree.file("other", "abc");
    tree.setModified("other", 1000);
    ZebFileReader other;
    ASSERT_EQ(other.open(tree.path("other")), 0);
    EXPECT_NE(other.stamp(), first);
}
