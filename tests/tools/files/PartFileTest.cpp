#include "tools/files/PartFile.h"

#include "tools/files/OpenDirectory.h"
#include "tools/terminal/ToolError.h"

#include "support/TemporaryTree.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>

namespace {

class PartFileTest : public ::testing::Test
{
protected:
    static int codeOf(const std::function<void()>& work)
    {
        const auto error = ToolError::of(work);
        return error ? error->code() : 0;
    }

    std::string bytesOf(const std::string& name) const
    {
        std::ifstream stream(m_Tree.path(name), std::ios::binary);
        std::ostringstream bytes;
        bytes << stream.rdbuf();
        return bytes.str();
    }

    TemporaryTree m_Tree;
    OpenDirectory m_Directory = OpenDirectory::at(m_Tree.top());
};

} // namespace

TEST_F(PartFileTest, AFileHasItsNameOnceItIsPublished)
{
    {
        PartFile file(m_Directory, "part");
        file.write("abc", 3);
        EXPECT_FALSE(std::filesystem::exists(m_Tree.path("name")));
        file.publish("name");
    }
    EXPECT_EQ(bytesOf("name"), "abc");
    EXPECT_FALSE(std::filesystem::exists(m_Tree.path("part")));
}

TEST_F(PartFileTest, WithoutPublishingNothingIsLeft)
{
    PartFile(m_Directory, "part").write("abc", 3);
    EXPECT_TRUE(std::filesystem::is_empty(m_Tree.top()));
}

TEST_F(PartFileTest, NothingIsReplaced)
{
    m_Tree.file("name", "old");
    {
        PartFile file(m_Directory, "part");
        EXPECT_EQ(codeOf([&] { file.publish("name"); }), EEXIST);
    }
    EXPECT_EQ(bytesOf("name"), "old");
    EXPECT_FALSE(std::filesystem::exists(m_Tree.path("part")));
}

TEST_F(PartFileTest, APartThatNoProcessWritesIsReplaced)
{
    m_Tree.file("part", "more than three bytes");
    m_Tree.file("kept", "kept");
    {
        PartFile file(m_Directory, "part");
        file.write("abc", 3);
        file.publish("name");
    }
    EXPECT_EQ(bytesOf("name"), "abc");
    // A link in its place is removed, and what it leads to stays.
    m_Tree.link("part", "kept");
    PartFile(m_Directory, "part").write("abc", 3);
    EXPECT_EQ(bytesOf("kept"), "kept");
}

TEST_F(PartFileTest, APartThatIsBeingWrittenIsNotTaken)
{
    PartFile first(m_Directory, "part");
    first.write("abc", 3);
    EXPECT_EQ(codeOf([this] { const PartFile second(m_Directory, "part"); }), EWOULDBLOCK);
    first.publish("name");
    EXPECT_EQ(bytesOf("name"), "abc");
}

// Two at once find what a killed process left: each part belongs to its creator until its end.
TEST_F(PartFileTest, AStalePartIsNotTakenFromTheThreadThatReplacedIt)
{
    constexpr int rounds = 300;
    std::atomic<int> arrived(0);
    std::atomic<int> taken(0);
    const auto work = [&](int thread) {
        for (int round = 0; round < rounds; ++round) {
            const std::string part = "part" + std::to_string(round);
            ++arrived;
            while (arrived < 2 * (round + 1))
                std::this_thread::yield();
            const auto error = ToolError::of(
                [&] { PartFile(m_Directory, part).publish(part + "-" + std::to_string(thread)); });
            if (error && error->code() != EWOULDBLOCK)
                ++taken;
        }
    };
    for (int round = 0; round < rounds; ++round)
        m_Tree.file("part" + std::to_string(round), "stale");
    std::thread first(work, 1);
    work(2);
    first.join();
    EXPECT_EQ(taken, 0);
}

TEST_F(PartFileTest, AnotherFileUnderTheNameOfThePartIsNotPublished)
{
    {
        PartFile file(m_Directory, "part");
        m_Tree.remove("part");
        m_Tree.file("part", "of another process");
        EXPECT_TRUE(ToolError::of([&] { file.publish("name"); }));
    }
    EXPECT_FALSE(std::filesystem::exists(m_Tree.path("name")));
    EXPECT_EQ(bytesOf("part"), "of another process");
}

TEST_F(PartFileTest, NamesAreShortStableAndDistinct)
{
    const std::string longest(255, 'x');
    EXPECT_LE(PartFile::nameFor(longest, 0).size(), 255U);
    EXPECT_EQ(PartFile::nameFor("a", 0), PartFile::nameFor("a", 0));
    EXPECT_NE(PartFile::nameFor("a", 0), PartFile::nameFor("a", 1));
    EXPECT_NE(PartFile::nameFor("a", 0), PartFile::nameFor("b", 0));
    EXPECT_TRUE(PartFile::isPartName(PartFile::nameFor("a", 0)));
    EXPECT_FALSE(PartFile::isPartName("a"));
}

TEST_F(PartFileTest, DirectoriesAreCreatedAndLinksRefused)
{
    const OpenDirectory inner = OpenDirectory::below(m_Directory, "a/b");
    EXPECT_TRUE(std::filesystem::is_directory(m_Tree.path("a/b")));
    m_Tree.link("a/link", "b");
    EXPECT_EQ(codeOf([this] { OpenDirectory::below(m_Directory, "a/link"); }), ELOOP);
    EXPECT_EQ(codeOf([this] { OpenDirectory::below(m_Directory, "a/link/c"); }), ELOOP);
    m_Tree.file("file", "");
    EXPECT_EQ(codeOf([this] { OpenDirectory::below(m_Directory, "file"); }), ENOTDIR);
    PartFile(OpenDirectory::below(m_Directory, ""), "part").publish("top");
    EXPECT_TRUE(std::filesystem::exists(m_Tree.path("top")));
}
