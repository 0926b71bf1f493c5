#include "tools/files/FileReader.h"

#include "tools/support/TemporaryTree.h"

#include <gtest/gtest.h>

TEST(FileReader, ReadsBlocksAtAnyPlaceAndFewerBytesAtTheEnd)
{
    const TemporaryTree tree;
    tree.file("f", "0123456789");
    FileReader reader;
    ASSERT_EQ(reader.open(tree.path("f")), "");
    QByteArray block;
    EXPECT_EQ(reader.readBlock(4, 4, block), "");
    EXPECT_EQ(block, QByteArray("4567"));
    EXPECT_EQ(reader.readBlock(8, 4, block), "");
    EXPECT_EQ(block, QByteArray("89"));
    EXPECT_EQ(reader.readBlock(10, 4, block), "");
    EXPECT_EQ(block.size(), 0);
    EXPECT_EQ(reader.readBlock(1000, 4, block), "");
    EXPECT_EQ(block.size(), 0);
    EXPECT_EQ(reader.readBlock(0, 10, block), "");
    EXPECT_EQ(block, QByteArray("0123456789"));
}

TEST(FileReader, TakesMemoryForWhatThereIsAndNotForWhatIsAsked)
{
    const TemporaryTree tree;
    tree.file("f", "abc");
    FileReader reader;
    ASSERT_EQ(reader.open(tree.path("f")), "");
    QByteArray block;
    EXPECT_EQ(reader.readBlock(0, 0x7FFFFFFF, block), "");
    EXPECT_EQ(block, QByteArray("abc"));
    EXPECT_LT(block.capacity(), 1024 * 1024);
}

TEST(FileReader, SeesWhatWasAddedAfterItWasOpened)
{
    const TemporaryTree tree;
    const std::string content = mixedBytes(500000, 1);
    tree.file("f", "");
    FileReader reader;
    ASSERT_EQ(reader.open(tree.path("f")), "");
    tree.append("f", content);
    QByteArray block;
    EXPECT_EQ(reader.readBlock(0, 1000000, block), "");
    EXPECT_EQ(block.toStdString(), content);
}

TEST(FileReader, ReadsFilesThatTellNoSize)
{
    FileReader reader;
    ASSERT_EQ(reader.open("/proc/self/status"), "");
    EXPECT_EQ(reader.stamp().m_Size, 0);
    QByteArray block;
    EXPECT_EQ(reader.readBlock(0, 1000000, block), "");
    EXPECT_TRUE(block.startsWith("Name:"));
}

TEST(FileReader, SaysWhatCannotBeOpened)
{
    const TemporaryTree tree;
    tree.folder("folder");
    tree.pipe("pipe");
    tree.socket("socket");
    tree.link("dangling", "nothing");
    tree.link("loop", "loop");
    tree.file("file", "x");
    FileReader reader;
    EXPECT_EQ(reader.open(tree.path("missing")), "No such file or directory");
    EXPECT_EQ(reader.open(tree.path("dangling")), "No such file or directory");
    EXPECT_EQ(reader.open(tree.path("file/below")), "Not a directory");
    EXPECT_EQ(reader.open(tree.path("loop")), "Too many levels of symbolic links");
    EXPECT_EQ(reader.open(tree.path("folder")), "is a folder");
    // No writer stands at the pipe: opening it in the plain way would wait for ever.
    EXPECT_EQ(reader.open(tree.path("pipe")), "is a named pipe");
    EXPECT_NE(reader.open(tree.path("socket")), "");
    EXPECT_EQ(reader.open("/dev/null"), "is a character device");
}

TEST(FileReader, SaysWhatCannotBeRead)
{
    // A file of the kernel's that opens, and whose first page nobody can read.
    FileReader reader;
    ASSERT_EQ(reader.open("/proc/self/mem"), "");
    QByteArray block("old");
    EXPECT_EQ(reader.readBlock(0, 4096, block), "Input/output error");
    EXPECT_TRUE(block.isEmpty());
}

TEST(FileReader, TheStampTellsStatesApart)
{
    const TemporaryTree tree;
    tree.file("f", "abc");
    tree.setModified("f", 1000);
    const auto stampNow = [&tree] {
        FileReader reader;
        EXPECT_EQ(reader.open(tree.path("f")), "");
        return reader.stamp();
    };
    const FileStamp first = stampNow();
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
    FileReader other;
    ASSERT_EQ(other.open(tree.path("other")), "");
    EXPECT_NE(other.stamp(), first);
}
