#include "tools/files/Manifest.h"

#include "support/TemporaryTree.h"
#include "tools/terminal/ToolError.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <string>
#include <vector>

using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

const QString s_Hash = QStringLiteral("1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-4294967295");

Manifest example()
{
    Manifest manifest;
    manifest.m_Place.m_Roots = {"/a", "/b"};
    manifest.m_Place.m_Buckets = 7;
    manifest.m_Place.m_SubCache = "part";
    manifest.m_BlockSize = 1024;
    manifest.m_Files.push_back({"d/f", 3000, s_Hash});
    manifest.m_Files.push_back({"odd\xFF\n", 0, s_Hash});
    return manifest;
}

// The example with one text in place of another.
QByteArray changed(const QByteArray& from, const QByteArray& to)
{
    QByteArray text = example().text();
    EXPECT_TRUE(text.contains(from)) << from.constData();
    return text.replace(from, to);
}

std::string whyNot(const QByteArray& text)
{
    const auto error = ToolError::of([&text] { Manifest::parse(text); });
    return error ? error->what() : "";
}

std::string whyNotSaved(const Manifest& manifest, const std::string& path)
{
    const auto error = ToolError::of([&] { manifest.save(path, true); });
    return error ? error->what() : "";
}

std::vector<std::string> namesIn(const TemporaryTree& tree)
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(tree.top()))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace

TEST(Manifest, ComesBackFromItsText)
{
    const Manifest manifest = Manifest::parse(example().text());
    EXPECT_EQ(manifest.m_Place.m_Roots, example().m_Place.m_Roots);
    EXPECT_EQ(manifest.m_Place.m_Buckets, 7);
    EXPECT_EQ(manifest.m_Place.m_SubCache, "part");
    EXPECT_EQ(manifest.m_BlockSize, 1024);
    ASSERT_EQ(manifest.m_Files.size(), 2U);
    EXPECT_EQ(manifest.m_Files[0].m_Path, "d/f");
    EXPECT_EQ(manifest.m_Files[0].m_Size, 3000);
    EXPECT_EQ(manifest.m_Files[0].m_Group, s_Hash);
    EXPECT_EQ(manifest.m_Files[1].m_Path, "odd\xFF\n");
}

TEST(Manifest, IsOneJsonObjectALine)
{
    EXPECT_EQ(example().text().count('\n'), 4);
    EXPECT_THAT(example().text().toStdString(), HasSubstr("\n{\"bytes\":3000,\"files\":2}\n"));
}

TEST(Manifest, TheLargestBlockMayBeAListOfBlocks)
{
    Manifest manifest = example();
    EXPECT_EQ(manifest.largestBlock(), 1024);
    manifest.m_Files[0].m_Size = 1024 * 1024 + 1;
    EXPECT_EQ(manifest.largestBlock(), 16 + 64 * 1025);
    manifest.m_Files.clear();
    EXPECT_EQ(manifest.largestBlock(), 0);
}

TEST(Manifest, AnythingElseIsRefused)
{
    EXPECT_EQ(whyNot(""), "is not a manifest");
    EXPECT_EQ(whyNot("text"), "is not a manifest");
    EXPECT_EQ(whyNot("{}\n"), "is not a manifest");
    EXPECT_EQ(whyNot("[]\n"), "is not a manifest");
    EXPECT_EQ(whyNot(changed("\"version\":1", "\"version\":2")),
              "is a manifest of a version that this program cannot read");
}

TEST(Manifest, APartOfAManifestIsRefused)
{
    const QByteArray text = example().text();
    const int lastLine = text.lastIndexOf('\n', text.size() - 2) + 1;
    EXPECT_EQ(whyNot(text.left(lastLine)), "is incomplete: its last line is missing");
    for (int length = 0; length < text.size() - 1; ++length)
        EXPECT_NE(whyNot(text.left(length)), "") << length;
    EXPECT_EQ(whyNot(text.left(text.size() - 1)), "") << "all but the last line's end";
    EXPECT_EQ(whyNot(changed("\"files\":2", "\"files\":3")),
              "line 4 does not match the files above it");
    EXPECT_EQ(whyNot(changed("\"bytes\":3000", "\"bytes\":3001")),
              "line 4 does not match the files above it");
    EXPECT_EQ(whyNot(text + "{}\n"), "line 4 is not the last one");
}

TEST(Manifest, NonsenseInALineIsNamedWithItsNumber)
{
    EXPECT_EQ(whyNot(changed("\"size\":3000", "\"size\":-1")), "line 2 has no valid \"size\"");
    EXPECT_EQ(whyNot(changed("\"size\":3000", "\"size\":1.5")), "line 2 has no valid \"size\"");
    EXPECT_EQ(whyNot(changed("\"size\":3000", "\"size\":1e300")), "line 2 has no valid \"size\"");
    EXPECT_EQ(whyNot(changed("\"path\":\"d/f\"", "\"path\":1")), "line 2 has no valid \"path\"");
    EXPECT_EQ(whyNot(changed(s_Hash.toLatin1() + "\",\"path\"", "1-2\",\"path\"")),
              "line 2 has no valid \"group\"");
    EXPECT_EQ(whyNot(changed("4294967295\",\"path\"", "4294967296\",\"path\"")),
              "line 2 has no valid \"group\"");
    EXPECT_EQ(whyNot(changed("{\"group\"", "x{\"group\"")), "line 2 is not a JSON object");
}

TEST(Manifest, APlaceThatMakesNoSenseIsRefused)
{
    EXPECT_EQ(whyNot(changed("\"buckets\":7", "\"buckets\":0")), "has no valid \"buckets\"");
    EXPECT_EQ(whyNot(changed("\"block_size\":1024", "\"block_size\":0")),
              "has no valid \"block_size\"");
    EXPECT_EQ(whyNot(changed("\"sub_cache\":\"part\"", "\"sub_cache\":\"../x\"")),
              "'../x' contains a '/'; a sub-cache is a single directory");
    EXPECT_EQ(whyNot(changed("\"roots\":[", "\"roots\":[],\"x\":[")), "has no cache roots");
}

TEST(Manifest, NamesThatLeadOutOfTheDirectoryAreRefused)
{
    for (const char* const name :
         {"/etc/passwd", "../x", "a/../../x", "a/..", ".", "./a", "", "a/", "a/./b"}) {
        EXPECT_FALSE(Manifest::isSafeName(name)) << name;
        const QByteArray path = QByteArray("\"path\":\"") + name + '"';
        EXPECT_EQ(whyNot(changed("\"path\":\"d/f\"", path)),
                  "line 2 has a name that leads out of the directory")
            << name;
    }
    EXPECT_FALSE(Manifest::isSafeName(std::string("a\0b", 3)));
    for (const char* const name : {"a", "a/b", "..a/b..", "...", "a b"})
        EXPECT_TRUE(Manifest::isSafeName(name)) << name;
}

TEST(Manifest, NamesAreRelativeAndStayBelow)
{
    EXPECT_EQ(Manifest::nameFor("/usr/include/a.h"), "usr/include/a.h");
    EXPECT_EQ(Manifest::nameFor("a/./b//c"), "a/b/c");
    EXPECT_EQ(Manifest::nameFor("./a"), "a");
    EXPECT_EQ(Manifest::nameFor("../../a"), "a");
    EXPECT_EQ(Manifest::nameFor("a/../b"), "b");
    EXPECT_EQ(Manifest::nameFor("/"), "");
    for (const char* const path : {"/usr/x", "../x", "a/../../b", "./x"})
        EXPECT_TRUE(Manifest::isSafeName(Manifest::nameFor(path))) << path;
}

TEST(Manifest, AFileOnDiskComesBack)
{
    const TemporaryTree tree;
    example().save(tree.path("m"), false);
    EXPECT_EQ(Manifest::load(tree.path("m")).text(), example().text());
}

TEST(Manifest, AReplacedManifestIsKeptUnderTheNextNumber)
{
    const TemporaryTree tree;
    const std::string path = tree.path("m");
    Manifest manifest = example();
    EXPECT_EQ(manifest.save(path, true), "");
    EXPECT_EQ(manifest.save(path, true), "") << "nothing is lost";
    for (const char* const number : {".1", ".2", ".3"}) {
        const QByteArray previous = manifest.text();
        manifest.m_Files.push_back({std::string("more") + number, 1, s_Hash});
        EXPECT_EQ(manifest.save(path, true), path + number);
        EXPECT_EQ(Manifest::load(path + number).text(), previous);
        EXPECT_EQ(Manifest::load(path).text(), manifest.text());
    }
    EXPECT_THAT(namesIn(tree), ElementsAre("m", "m.1", "m.2", "m.3"));
}

TEST(Manifest, FilesOfOtherProcessesStayAsTheyAre)
{
    const TemporaryTree tree;
    tree.file("m.part", "precious");
    example().save(tree.path("m"), true);
    EXPECT_EQ(std::filesystem::file_size(tree.path("m.part")), 8U);
    EXPECT_THAT(namesIn(tree), ElementsAre("m", "m.part"));
}

TEST(Manifest, WhatCannotBeReadBackIsNotSaved)
{
    const TemporaryTree tree;
    example().save(tree.path("m"), false);
    Manifest wrong = example();
    wrong.m_Files[0].m_Group = QStringLiteral("1-2");
    EXPECT_EQ(whyNotSaved(wrong, tree.path("m")),
              "was written, but cannot be read back: line 2 has no valid \"group\"");
    wrong = example();
    wrong.m_Files[0].m_Path = std::string(17 * 1024 * 1024, 'x');
    EXPECT_EQ(whyNotSaved(wrong, tree.path("m")),
              "was written, but cannot be read back: line 2 is too long");
    EXPECT_EQ(Manifest::load(tree.path("m")).text(), example().text());
    EXPECT_THAT(namesIn(tree), ElementsAre("m"));
}

TEST(Manifest, OnlyAFileIsReplaced)
{
    const TemporaryTree tree;
    tree.directory("m");
    EXPECT_EQ(whyNotSaved(example(), tree.path("m")), "is a directory");
    EXPECT_EQ(whyNotSaved(example(), "/dev/null"), "is a character device");
}

TEST(Manifest, LinesOfAnyNumberAreReadInPieces)
{
    const TemporaryTree tree;
    Manifest manifest = example();
    for (int i = 0; i < 5000; ++i)
        manifest.m_Files.push_back({"f" + std::to_string(i), i, s_Hash});
    manifest.save(tree.path("m"), false);
    EXPECT_EQ(Manifest::load(tree.path("m")).text(), manifest.text());
    tree.file("whole", example().text().toStdString());
    tree.resize("whole", example().text().size() - 1);
    EXPECT_EQ(Manifest::load(tree.path("whole")).text(), example().text());
}

TEST(Manifest, ALineWithoutEndIsRefused)
{
    const TemporaryTree tree;
    std::ofstream(tree.path("m")) << std::string(17 * 1024 * 1024, 'x');
    const std::string head =
        example().text().left(example().text().indexOf('\n') + 1).toStdString();
    std::ofstream(tree.path("n")) << head << std::string(17 * 1024 * 1024, 'x');
    const auto whyNotLoaded = [&tree](const char* name) {
        const auto error = ToolError::of([&] { Manifest::load(tree.path(name)); });
        return error ? error->what() : std::string();
    };
    EXPECT_EQ(whyNotLoaded("m"), "is not a manifest");
    EXPECT_EQ(whyNotLoaded("n"), "line 2 is too long");
}

TEST(Manifest, SizesNeverOverflowTheirSum)
{
    Manifest manifest = example();
    constexpr qint64 largest = 9007199254740992;
    manifest.m_Files.resize(1);
    for (int i = 0; i < 2000; ++i)
        manifest.m_Files.push_back({"f" + std::to_string(i), largest, s_Hash});
    EXPECT_EQ(manifest.bytes(), std::numeric_limits<qint64>::max());
    EXPECT_EQ(whyNot(manifest.text()),
              "line 3 has a size that makes the sum of all sizes too large");
    const TemporaryTree tree;
    EXPECT_EQ(whyNotSaved(manifest, tree.path("m")),
              "cannot have files of more than 8 PiB in total");
}

TEST(Manifest, SavingReplacesOnlyOnRequestAndLeavesNoPart)
{
    const TemporaryTree tree;
    const auto codeOf = [](const std::function<void()>& work) {
        const auto error = ToolError::of(work);
        return error ? error->code() : 0;
    };
    const auto save = [&](const char* name, bool replace) {
        return codeOf([&] { example().save(tree.path(name), replace); });
    };
    tree.file("m", "precious");
    EXPECT_EQ(save("m", false), EEXIST);
    EXPECT_THROW(Manifest::load(tree.path("m")), ToolError);
    EXPECT_THAT(namesIn(tree), ElementsAre("m"));
    EXPECT_EQ(save("m", true), 0);
    EXPECT_EQ(Manifest::load(tree.path("m")).m_Files.size(), 2U);
    EXPECT_THAT(namesIn(tree), ElementsAre("m", "m.1"));
    EXPECT_EQ(save("missing/m", true), ENOENT);
    EXPECT_EQ(codeOf([&] { Manifest::load(tree.path("missing")); }), ENOENT);
}
