#include "tools/files/FileWalker.h"

#include "support/TemporaryTree.h"
#include "tools/support/ErrorLines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>

#include <unistd.h>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr uid_t s_Nobody = 65534;

struct Walked
{
    std::vector<std::string> m_Names;
    qint64 m_Bytes = 0;
    qint64 m_SkippedLinks = 0;
    std::vector<std::string> m_Errors;
};

// Walks the paths, which are relative to the tree's top, and gives names relative to it.
Walked walk(const TemporaryTree& tree, const std::vector<std::string>& names)
{
    ErrorLines errors;
    FileWalker fileWalk(errors.report());
    for (const std::string& name : names)
        fileWalk.add(name == "." ? tree.top() : tree.path(name));
    Walked result;
    const std::string prefix = tree.top() + "/";
    const auto relative = [&prefix](std::string text) {
        const std::size_t at = text.find(prefix);
        return at == std::string::npos ? text : text.erase(at, prefix.size());
    };
    for (const FileWalker::File& file : fileWalk.files())
        result.m_Names.push_back(relative(file.m_Path));
    for (const std::string& line : errors.lines())
        result.m_Errors.push_back(relative(line));
    EXPECT_EQ(errors.report().count(), static_cast<qint64>(result.m_Errors.size()));
    result.m_Bytes = fileWalk.bytes();
    result.m_SkippedLinks = fileWalk.skippedLinks();
    return result;
}

} // namespace

TEST(FileWalker, GoesThroughFoldersSortedByTheBytesOfNames)
{
    const TemporaryTree tree;
    tree.directory("b");
    tree.directory("b/inner");
    tree.file("b/inner/deep", "12345");
    tree.file("b/Z", "1");
    tree.file("b/a", "22");
    tree.file("c", "333");
    tree.file("a", "");
    tree.file("\xC3\xA4", "4444");
    const Walked walked = walk(tree, {"."});
    EXPECT_THAT(walked.m_Names, ElementsAre("a", "b/Z", "b/a", "b/inner/deep", "c", "\xC3\xA4"));
    EXPECT_EQ(walked.m_Bytes, 15);
    EXPECT_EQ(walked.m_SkippedLinks, 0);
    EXPECT_THAT(walked.m_Errors, IsEmpty());
}

TEST(FileWalker, GivenPathsKeepTheirOrder)
{
    const TemporaryTree tree;
    tree.file("a", "");
    tree.file("b", "");
    tree.file("c", "");
    EXPECT_THAT(walk(tree, {"c", "a", "b"}).m_Names, ElementsAre("c", "a", "b"));
}

TEST(FileWalker, AnEmptyFolderHoldsNoFilesAndIsNoError)
{
    const TemporaryTree tree;
    tree.directory("empty");
    const Walked walked = walk(tree, {"empty"});
    EXPECT_THAT(walked.m_Names, IsEmpty());
    EXPECT_THAT(walked.m_Errors, IsEmpty());
}

TEST(FileWalker, LinksThatAreMetAreCountedAndNotFollowed)
{
    const TemporaryTree tree;
    tree.directory("d");
    tree.file("d/file", "x");
    tree.directory("outside");
    tree.file("outside/file", "x");
    tree.link("d/to-file", "file");
    tree.link("d/to-folder", "../outside");
    tree.link("d/up", "..");
    tree.link("d/dangling", "nothing");
    const Walked walked = walk(tree, {"d"});
    EXPECT_THAT(walked.m_Names, ElementsAre("d/file"));
    EXPECT_EQ(walked.m_SkippedLinks, 4);
    EXPECT_THAT(walked.m_Errors, IsEmpty());
}

TEST(FileWalker, AGivenLinkIsFollowed)
{
    const TemporaryTree tree;
    tree.directory("d");
    tree.file("d/file", "x");
    tree.link("to-folder", "d");
    tree.link("to-file", "d/file");
    EXPECT_THAT(walk(tree, {"to-folder"}).m_Names, ElementsAre("to-folder/file"));
    const Walked walked = walk(tree, {"to-file"});
    EXPECT_THAT(walked.m_Names, ElementsAre("to-file"));
    EXPECT_EQ(walked.m_SkippedLinks, 0);
}

TEST(FileWalker, WhatIsNoFileIsAnErrorWhetherGivenOrMet)
{
    const TemporaryTree tree;
    tree.directory("d");
    tree.pipe("d/pipe");
    tree.socket("d/socket");
    tree.file("d/zfile", "x");
    tree.link("d/skipped", "pipe");
    const Walked met = walk(tree, {"d"});
    EXPECT_THAT(met.m_Names, ElementsAre("d/zfile"));
    EXPECT_THAT(met.m_Errors,
                ElementsAre("zebtdx: d/pipe: is a named pipe", "zebtdx: d/socket: is a socket"));
    const Walked given = walk(tree, {"d/socket", "d/skipped", "d/zfile"});
    EXPECT_THAT(given.m_Names, ElementsAre("d/zfile"));
    EXPECT_THAT(given.m_Errors,
                ElementsAre("zebtdx: d/socket: is a socket", "zebtdx: d/skipped: is a named pipe"));
    ErrorLines errors;
    FileWalker device(errors.report());
    device.add("/dev/null");
    EXPECT_THAT(errors.lines(), ElementsAre("zebtdx: /dev/null: is a character device"));
}

TEST(FileWalker, WhatCannotBeReachedIsAnErrorAndTheRestGoesOn)
{
    const TemporaryTree tree;
    tree.file("file", "x");
    tree.link("dangling", "nothing");
    tree.link("loop", "loop");
    const std::string longName(300, 'n');
    const Walked walked =
        walk(tree, {"missing", "dangling", "loop", "file/below", longName, "file"});
    EXPECT_THAT(walked.m_Names, ElementsAre("file"));
    EXPECT_THAT(walked.m_Errors, ElementsAre("zebtdx: missing: No such file or directory",
                                             "zebtdx: dangling: No such file or directory",
                                             "zebtdx: loop: Too many levels of symbolic links",
                                             "zebtdx: file/below: Not a directory",
                                             "zebtdx: " + longName + ": File name too long"));
}

TEST(FileWalker, AFolderThatCannotBeReadIsAnErrorAndTheRestGoesOn)
{
    const TemporaryTree tree;
    ASSERT_EQ(::chmod(tree.top().c_str(), 0755), 0);
    tree.directory("a");
    tree.file("a/hidden", "x");
    tree.file("b", "x");
    ASSERT_EQ(::chmod(tree.path("a").c_str(), 0), 0);
    // No mode keeps the superuser out.
    const uid_t user = ::geteuid();
    if (user == 0 && ::seteuid(s_Nobody) != 0)
        GTEST_SKIP() << "cannot act as another user here";
    const Walked walked = walk(tree, {"."});
    ASSERT_EQ(::seteuid(user), 0);
    ASSERT_EQ(::chmod(tree.path("a").c_str(), 0755), 0);
    EXPECT_THAT(walked.m_Names, ElementsAre("b"));
    EXPECT_THAT(walked.m_Errors, ElementsAre("zebtdx: a: Permission denied"));
}

TEST(FileWalker, AFileReachedTwiceCountsTwiceOnlyWhenGivenTwice)
{
    const TemporaryTree tree;
    tree.directory("d");
    tree.directory("d/sub");
    tree.file("d/sub/f", "x");
    tree.file("d/g", "x");
    tree.link("d/link", "g");
    EXPECT_THAT(walk(tree, {"d", "d/sub"}).m_Names, ElementsAre("d/g", "d/sub/f"));
    EXPECT_THAT(walk(tree, {"d/sub", "d"}).m_Names, ElementsAre("d/sub/f", "d/g"));
    EXPECT_THAT(walk(tree, {"d/g", "d"}).m_Names, ElementsAre("d/g", "d/sub/f"));
    EXPECT_THAT(walk(tree, {"d/g", "d/g"}).m_Names, ElementsAre("d/g", "d/g"));
    EXPECT_THAT(walk(tree, {"d/g", "d", "d/./g"}).m_Names, ElementsAre("d/g", "d/sub/f", "d/./g"));
    const Walked twice = walk(tree, {"d", "d/"});
    EXPECT_THAT(twice.m_Names, ElementsAre("d/g", "d/sub/f", "d/g", "d/sub/f"));
    EXPECT_EQ(twice.m_SkippedLinks, 2);
    EXPECT_EQ(twice.m_Bytes, 4);
    // A link that is given is another name of what it points at.
    EXPECT_THAT(walk(tree, {"d", "d/link"}).m_Names, ElementsAre("d/g", "d/sub/f"));
    EXPECT_THAT(walk(tree, {"d/g", "d/link"}).m_Names, ElementsAre("d/g", "d/link"));
}

TEST(FileWalker, AnErrorInAFolderReachedTwiceIsReportedOnce)
{
    const TemporaryTree tree;
    tree.directory("d");
    tree.pipe("d/pipe");
    EXPECT_THAT(walk(tree, {"d", "d/pipe"}).m_Errors,
                ElementsAre("zebtdx: d/pipe: is a named pipe"));
}

TEST(FileWalker, HardLinksAreFilesOfTheirOwn)
{
    const TemporaryTree tree;
    tree.file("a", "xyz");
    ASSERT_EQ(::link(tree.path("a").c_str(), tree.path("b").c_str()), 0);
    const Walked walked = walk(tree, {"."});
    EXPECT_THAT(walked.m_Names, ElementsAre("a", "b"));
    EXPECT_EQ(walked.m_Bytes, 6);
}

TEST(FileWalker, NamesThatAreNoTextAreWalkedAsTheyAre)
{
    const TemporaryTree tree;
    tree.file("a\xFF\xFE", "12");
    tree.file("b\nc", "3");
    tree.pipe("p\xFF\x1B");
    const Walked walked = walk(tree, {"."});
    EXPECT_THAT(walked.m_Names, ElementsAre("a\xFF\xFE", "b\nc"));
    EXPECT_EQ(walked.m_Bytes, 3);
    EXPECT_THAT(walked.m_Errors, ElementsAre("zebtdx: p\\xff\\x1b: is a named pipe"));
}

TEST(FileWalker, TheSumOfSizesNeverOverflows)
{
    // Sparse, on a file system that allows such sizes.
    std::string top = "/dev/shm/zebtdx-walk-XXXXXX";
    if (::mkdtemp(top.data()) == nullptr)
        GTEST_SKIP() << top;
    constexpr qint64 size = qint64(1) << 62;
    bool isMade = true;
    for (const char* const name : {"/a", "/b", "/c"}) {
        std::ofstream(top + name).flush();
        isMade = isMade && ::truncate((top + name).c_str(), size) == 0;
    }
    ErrorLines errors;
    FileWalker walk(errors.report());
    walk.add(top);
    std::filesystem::remove_all(top);
    if (!isMade)
        GTEST_SKIP() << "no files of this size";
    EXPECT_EQ(walk.files().size(), 3U);
    EXPECT_EQ(walk.bytes(), std::numeric_limits<qint64>::max());
}
