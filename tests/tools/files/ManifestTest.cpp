#include "tools/files/Manifest.h"

#include "tools/support/TemporaryTree.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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
    Manifest manifest;
    const std::string reason = manifest.parse(text);
    EXPECT_TRUE(manifest.m_Files.empty() || reason.empty()) << "nothing changes on a failure";
    return reason;
}

} // namespace

TEST(Manifest, ComesBackFromItsText)
{
    Manifest manifest;
    ASSERT_EQ(manifest.parse(example().text()), "");
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

TEST(Manifest, WhatIsNoManifestIsRefused)
{
    EXPECT_EQ(whyNot(""), "is no manifest");
    EXPECT_EQ(whyNot("text"), "is no manifest");
    EXPECT_EQ(whyNot("{}\n"), "is no manifest");
    EXPECT_EQ(whyNot("[]\n"), "is no manifest");
    EXPECT_EQ(whyNot(changed("\"version\":1", "\"version\":2")),
              "is a manifest of a version that this program does not know");
}

TEST(Manifest, APartOfAManifestIsRefused)
{
    const QByteArray text = example().text();
    const int lastLine = text.lastIndexOf('\n', text.size() - 2) + 1;
    EXPECT_EQ(whyNot(text.left(lastLine)), "has no last line; it is not whole");
    for (int length = 0; length < text.size() - 1; ++length)
        EXPECT_NE(whyNot(text.left(length)), "") << length;
    EXPECT_EQ(whyNot(text.left(text.size() - 1)), "") << "all but the last line's end";
    EXPECT_EQ(whyNot(changed("\"files\":2", "\"files\":3")),
              "line 4 does not agree with the files before it");
    EXPECT_EQ(whyNot(changed("\"bytes\":3000", "\"bytes\":3001")),
              "line 4 does not agree with the files before it");
    EXPECT_EQ(whyNot(text + "{}\n"), "line 4 is not the last one");
}

TEST(Manifest, NonsenseInALineIsNamedWithItsNumber)
{
    EXPECT_EQ(whyNot(changed("\"size\":3000", "\"size\":-1")), "line 2 names no size");
    EXPECT_EQ(whyNot(changed("\"size\":3000", "\"size\":1.5")), "line 2 names no size");
    EXPECT_EQ(whyNot(changed("\"size\":3000", "\"size\":1e300")), "line 2 names no size");
    EXPECT_EQ(whyNot(changed("\"path\":\"d/f\"", "\"path\":1")), "line 2 names no file");
    EXPECT_EQ(whyNot(changed(s_Hash.toLatin1() + "\",\"path\"", "1-2\",\"path\"")),
              "line 2 names no hash");
    EXPECT_EQ(whyNot(changed("4294967295\",\"path\"", "4294967296\",\"path\"")),
              "line 2 names no hash");
    EXPECT_EQ(whyNot(changed("{\"group\"", "x{\"group\"")), "line 2 is no JSON object");
}

TEST(Manifest, APlaceThatMakesNoSenseIsRefused)
{
    EXPECT_EQ(whyNot(changed("\"buckets\":7", "\"buckets\":0")), "names no number of buckets");
    EXPECT_EQ(whyNot(changed("\"block_size\":1024", "\"block_size\":0")), "names no block size");
    EXPECT_EQ(whyNot(changed("\"sub_cache\":\"part\"", "\"sub_cache\":\"../x\"")),
              "'../x' has a separator; a sub-cache is one folder");
    EXPECT_EQ(whyNot(changed("\"roots\":[", "\"roots\":[],\"x\":[")), "names no cache root");
}

TEST(Manifest, NamesThatLeadOutOfTheFolderAreRefused)
{
    for (const char* const name :
         {"/etc/passwd", "../x", "a/../../x", "a/..", ".", "./a", "", "a/", "a/./b"}) {
        EXPECT_FALSE(Manifest::isSafeName(name)) << name;
        const QByteArray path = QByteArray("\"path\":\"") + name + '"';
        EXPECT_EQ(whyNot(changed("\"path\":\"d/f\"", path)),
                  "line 2 has a name that leads out of the folder")
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
    EXPECT_EQ(example().save(tree.path("m"), false), "");
    Manifest manifest;
    EXPECT_EQ(manifest.load(tree.path("m")), "");
    EXPECT_EQ(manifest.text(), example().text());
}

TEST(Manifest, SavingReplacesOnlyWhenAskedAndLeavesNoPart)
{
    const TemporaryTree tree;
    tree.file("m", "precious");
    Manifest manifest;
    EXPECT_EQ(example().save(tree.path("m"), false), "File exists");
    EXPECT_EQ(manifest.load(tree.path("m")), "is no manifest");
    EXPECT_NE(::access(tree.path("m.part").c_str(), F_OK), 0);
    EXPECT_EQ(example().save(tree.path("m"), true), "");
    EXPECT_EQ(manifest.load(tree.path("m")), "");
    EXPECT_EQ(example().save(tree.path("missing/m"), true), "No such file or directory");
    EXPECT_EQ(manifest.load(tree.path("missing")), "No such file or directory");
}
