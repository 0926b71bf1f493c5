// Where a cache lies, and that all of it reaches the disk.

#include "tools/cache/StorePlace.h"
#include "tools/files/FileSystem.h"
#include "tools/terminal/ToolError.h"

#include "support/TemporaryTree.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

namespace {

namespace fs = std::filesystem;

// What the calls below have seen, and what they return.
std::vector<dev_t> s_Synced;
int s_Error = 0;

dev_t deviceOf(const std::string& path)
{
    struct stat status = {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_dev;
}

} // namespace

// Takes the place of the system's call in this program.
extern "C" int syncfs(int descriptor) noexcept
{
    struct stat status = {};
    EXPECT_EQ(::fstat(descriptor, &status), 0);
    s_Synced.push_back(status.st_dev);
    errno = s_Error;
    return s_Error == 0 ? 0 : -1;
}

class StorePlaceTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        s_Synced.clear();
        s_Error = 0;
        for (const char* const name : {"r1", "r1/main", "r1/main/0", "r2", "r2/main"})
            m_Tree.directory(name);
        m_Place.m_Roots = {m_Tree.path("r1"), m_Tree.path("r2")};
    }

    TemporaryTree m_Tree;
    StorePlace m_Place;
};

TEST_F(StorePlaceTest, EachFileSystemIsSyncedOnce)
{
    m_Place.syncAll();
    EXPECT_THAT(s_Synced, ElementsAre(deviceOf(m_Tree.top())));
}

TEST_F(StorePlaceTest, BucketsAndSubCachesOnOtherFileSystemsAreSynced)
{
    const std::string other = "/dev/shm";
    const dev_t here = deviceOf(m_Tree.top());
    if (!fs::is_directory(other) || deviceOf(other) == here)
        GTEST_SKIP() << "needs two file systems";
    m_Tree.link("r2/main/7", other);
    m_Place.syncAll();
    EXPECT_THAT(s_Synced, UnorderedElementsAre(here, deviceOf(other)));
    m_Tree.remove("r2/main/7");
    m_Tree.link("r2/other", other);
    s_Synced.clear();
    m_Place.syncAll();
    EXPECT_THAT(s_Synced, ElementsAre(here)) << "another sub-cache";
    m_Place.m_SubCache.clear();
    s_Synced.clear();
    m_Place.syncAll();
    EXPECT_THAT(s_Synced, UnorderedElementsAre(here, deviceOf(other)));
}

TEST_F(StorePlaceTest, AFailureToSyncIsAnError)
{
    s_Error = EIO;
    try {
        m_Place.syncAll();
        ADD_FAILURE();
    } catch (const ToolError& error) {
        EXPECT_EQ(std::string(error.what()),
                  "cache root " + m_Tree.path("r1") + ": Input/output error");
    }
}

TEST_F(StorePlaceTest, AnAbsolutePathLeadsToTheSameDirectory)
{
    const std::string top = fs::canonical(m_Tree.top()).string();
    m_Tree.link("l", "r1/main");
    EXPECT_EQ(FileSystem::absolute(top + "/l/../c"), top + "/r1/c");
    EXPECT_EQ(FileSystem::absolute(top + "/./l/c"), top + "/l/c");
    EXPECT_EQ(FileSystem::absolute("c"), (fs::current_path() / "c").string());
    // Two directories.
    StorePlace::requireRoots({top + "/l/../c", top + "/c"});
    EXPECT_THROW(StorePlace::requireRoots({top + "/l/../c", top + "/r1/c/"}), ToolError);
}
