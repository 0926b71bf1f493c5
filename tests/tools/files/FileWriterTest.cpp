#include "tools/files/FileWriter.h"

#include "support/ResourceLimit.h"
#include "support/TemporaryTree.h"
#include "tools/files/Manifest.h"
#include "tools/terminal/ToolError.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>
#include <string>

#include <fcntl.h>

namespace {

constexpr mode_t s_Mode = 0644;
constexpr rlim_t s_FileLimit = 4096;

bool exists(const std::string& path)
{
    return std::filesystem::exists(std::filesystem::symlink_status(path));
}

std::string bytesOf(const std::string& path)
{
    std::ifstream stream(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << stream.rdbuf();
    return bytes.str();
}

void write(FileWriter& file, const std::string& bytes)
{
    file.write(bytes.data(), static_cast<qint64>(bytes.size()));
}

// The number of the system's error, 0 without an error.
int codeOf(const std::function<void()>& work)
{
    const auto error = ToolError::of(work);
    return error ? error->code() : 0;
}

// How many files and directories a directory has.
std::ptrdiff_t entriesOf(const std::string& directory)
{
    return std::distance(std::filesystem::directory_iterator(directory), {});
}

// A manifest whose text is far larger than the file limit.
Manifest longManifest()
{
    Manifest manifest;
    manifest.m_Place.m_Roots = {"/a"};
    manifest.m_Place.m_Buckets = 7;
    manifest.m_Place.m_SubCache = "part";
    manifest.m_BlockSize = 1024;
    for (int i = 0; i < 200; ++i)
        manifest.m_Files.push_back(
            {"f" + std::to_string(i), 1, QStringLiteral("1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16")});
    return manifest;
}

} // namespace

TEST(FileWriter, AFileThatIsNotKeptIsRemoved)
{
    const TemporaryTree tree;
    {
        FileWriter file(tree.path("f"), O_EXCL, s_Mode);
        write(file, "text");
        file.sync();
        EXPECT_EQ(bytesOf(tree.path("f")), "text");
    }
    EXPECT_FALSE(exists(tree.path("f")));
}

TEST(FileWriter, AKeptFileStays)
{
    const TemporaryTree tree;
    {
        FileWriter file(tree.path("f"), O_EXCL, s_Mode);
        write(file, "one, ");
        write(file, "two");
        file.keep();
    }
    EXPECT_EQ(bytesOf(tree.path("f")), "one, two");
}

TEST(FileWriter, ADisownedFileStays)
{
    const TemporaryTree tree;
    {
        FileWriter file(tree.path("f"), O_EXCL, s_Mode);
        write(file, "text");
        file.disown();
    }
    EXPECT_EQ(bytesOf(tree.path("f")), "text");
}

TEST(FileWriter, AnExistingFileIsRefusedAndUntouched)
{
    const TemporaryTree tree;
    tree.file("f", "precious");
    EXPECT_EQ(codeOf([&] { const FileWriter file(tree.path("f"), O_EXCL, s_Mode); }), EEXIST);
    EXPECT_EQ(bytesOf(tree.path("f")), "precious");
}

TEST(FileWriter, ALinkIsNotFollowed)
{
    const TemporaryTree tree;
    tree.file("f", "precious");
    tree.link("link", "f");
    EXPECT_EQ(codeOf([&] { const FileWriter file(tree.path("link"), O_TRUNC, s_Mode); }), ELOOP);
    EXPECT_EQ(bytesOf(tree.path("f")), "precious");
    EXPECT_TRUE(exists(tree.path("link")));
}

TEST(FileWriter, AFileThatCannotBeWrittenIsRemoved)
{
    const TemporaryTree tree;
    int code = 0;
    bool isThere = false;
    {
        const ResourceLimit limit(RLIMIT_FSIZE, s_FileLimit);
        code = codeOf([&] {
            FileWriter file(tree.path("f"), O_EXCL, s_Mode);
            write(file, std::string(s_FileLimit, 'x'));
            isThere = exists(tree.path("f"));
            write(file, "y");
            file.keep();
        });
    }
    EXPECT_EQ(code, EFBIG);
    EXPECT_TRUE(isThere) << "until the write that fails";
    EXPECT_FALSE(exists(tree.path("f")));
}

TEST(FileWriter, APartialWriteIsAnError)
{
    const TemporaryTree tree;
    int code = 0;
    {
        const ResourceLimit limit(RLIMIT_FSIZE, s_FileLimit);
        code = codeOf([&] {
            FileWriter file(tree.path("f"), O_EXCL, s_Mode);
            write(file, std::string(s_FileLimit + 1, 'x'));
            file.keep();
        });
    }
    EXPECT_EQ(code, EFBIG);
    EXPECT_FALSE(exists(tree.path("f")));
}

TEST(FileWriter, AManifestThatCannotBeWrittenLeavesTheOldOne)
{
    const TemporaryTree tree;
    tree.file("m", "old");
    ASSERT_GT(longManifest().text().size(), static_cast<int>(s_FileLimit));
    int code = 0;
    {
        const ResourceLimit limit(RLIMIT_FSIZE, s_FileLimit);
        code = codeOf([&] { longManifest().save(tree.path("m"), true); });
    }
    EXPECT_EQ(code, EFBIG);
    EXPECT_EQ(entriesOf(tree.path(".")), 1);
    EXPECT_EQ(bytesOf(tree.path("m")), "old");
    EXPECT_EQ(codeOf([&] { longManifest().save(tree.path("m"), true); }), 0);
    EXPECT_EQ(Manifest::load(tree.path("m")).m_Files.size(), 200U);
}

TEST(FileWriter, AManifestThatCannotBeRenamedLeavesNoPart)
{
    const TemporaryTree tree;
    tree.directory("m");
    EXPECT_THROW(longManifest().save(tree.path("m"), true), ToolError);
    EXPECT_TRUE(std::filesystem::is_directory(tree.path("m")));
    EXPECT_EQ(entriesOf(tree.path(".")), 1);
}
