// What a collector's pass does with links, pipes, sockets and directories that have the names of
// block files or of buckets, and the order in which it reads a directory.

#include "support/CollectorStation.h"
#include "support/UnexpectedFiles.h"

#include <QDir>
#include <QFileInfo>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <dirent.h>
#include <dlfcn.h>
#include <unistd.h>

namespace {

class ZebGarbageCollectorThreadTree : public CollectorStation
{
protected:
    // A directory outside of the root with an orphaned block file in its bucket.
    QString outside()
    {
        const QString path = m_Outside.path() + "/0/" + deadName(7);
        BlockFiles::write(path, "x");
        return path;
    }

    QTemporaryDir m_Outside;
};

// The names in the order in which the system lists them.
std::vector<std::string> listed(const QString& directory)
{
    std::vector<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(
        ::opendir(QFile::encodeName(directory).constData()), &::closedir);
    while (const dirent* const entry = ::readdir(stream.get())) {
        if (entry->d_name[0] != '.')
            names.emplace_back(static_cast<const char*>(entry->d_name));
    }
    return names;
}

// The names that were removed, in this order.
std::vector<std::string> s_Removed;

} // namespace

// Replaces the system's function.
extern "C" int unlinkat(int directory, const char* name, int flags) noexcept
{
    s_Removed.emplace_back(name);
    using Function = int (*)(int, const char*, int);
    static const auto system = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "unlinkat"));
    return system(directory, name, flags);
}

// Links

TEST_F(ZebGarbageCollectorThreadTree, ALinkInTheBucketsPlaceIsNotFollowed)
{
    const QString file = outside();
    QDir().mkpath(path(""));
    ASSERT_TRUE(QFile::link(m_Outside.path() + "/0", path("0")));
    pass();
    EXPECT_TRUE(QFile::exists(file));
    EXPECT_TRUE(QFileInfo(path("0")).isSymLink());
}

TEST_F(ZebGarbageCollectorThreadTree, ALinkInTheSubCachesPlaceIsNotFollowed)
{
    const QString file = outside();
    ASSERT_TRUE(QFile::link(m_Outside.path(), m_Root.path() + "/" + subCache()));
    pass();
    EXPECT_TRUE(QFile::exists(file));
    EXPECT_EQ(sizeFound(), 0);
}

TEST_F(ZebGarbageCollectorThreadTree, ALinkToADirectoryWithTheNameOfABlockIsNotFollowed)
{
    const QString file = outside();
    const QString dead = writeDead("1");
    ASSERT_TRUE(QFile::link(m_Outside.path() + "/0", path("1/" + deadName(8))));
    pass();
    EXPECT_TRUE(QFile::exists(file));
    EXPECT_FALSE(QFile::exists(dead));
}

TEST_F(ZebGarbageCollectorThreadTree, ALinkToAFileIsKeptAndNotCounted)
{
    const QString file = outside();
    const QString dead = path("0/" + deadName(1));
    const QString dangling = path("0/" + deadName(2));
    const QString live = writeLive("0", 30);
    QFile::remove(live);
    for (const QString& link : {dead, live})
        ASSERT_TRUE(QFile::link(file, link));
    ASSERT_TRUE(QFile::link("/nowhere/at/all", dangling));
    pass();
    for (const QString& link : {dead, live, dangling})
        EXPECT_TRUE(QFileInfo(link).isSymLink());
    EXPECT_TRUE(QFile::exists(file));
    EXPECT_EQ(sizeFound(), 0);
}

TEST_F(ZebGarbageCollectorThreadTree, ARootThatIsALinkIsWalked)
{
    const QString dead = writeDead("0");
    const QString link = m_Outside.path() + "/root";
    ASSERT_TRUE(QFile::link(m_Root.path(), link));
    ZebGarbageCollectorThread collector(link, 10, nullptr);
    manager().startGarbageCollection();
    collector.collect(nullptr, nullptr);
    EXPECT_FALSE(QFile::exists(dead));
}

TEST_F(ZebGarbageCollectorThreadTree, ABucketThatBecomesALinkAfterTheWalkIsNotFollowed)
{
    const QString file = outside();
    const QString dead = write("0/" + deadName(7));
    RecordingReporter reporter;
    reporter.onUpdate([this](int value) {
        if (value != 3)
            return;
        // The walk has read bucket 0 and is about to read bucket 1.
        ASSERT_TRUE(QDir(path("0")).removeRecursively());
        ASSERT_TRUE(QFile::link(m_Outside.path() + "/0", path("0")));
    });
    write("1/no block");
    int count = 0;
    pass(&reporter, &count);
    EXPECT_EQ(count, 3);
    EXPECT_TRUE(QFile::exists(file));
}

// Anything else

TEST_F(ZebGarbageCollectorThreadTree, PipesAndSocketsWithTheNamesOfBlocksAreKeptAndNotOpened)
{
    const QString dead = writeDead("0");
    const QString live = writeLive("0", 30);
    QFile::remove(live);
    const UnexpectedFiles::Socket socket(path("0/" + deadName(11)));
    UnexpectedFiles::makePipe(path("0/" + deadName(12)));
    UnexpectedFiles::makePipe(live);
    pass();
    EXPECT_FALSE(QFile::exists(dead));
    EXPECT_TRUE(UnexpectedFiles::exists(path("0/" + deadName(11))));
    EXPECT_TRUE(UnexpectedFiles::exists(path("0/" + deadName(12))));
    EXPECT_TRUE(UnexpectedFiles::exists(live));
    EXPECT_EQ(sizeFound(), 0);
}

TEST_F(ZebGarbageCollectorThreadTree, DeletingABlockRemovesNoLinkAndNoPipe)
{
    const QString file = outside();
    const QString link = path("0/link");
    const QString pipe = path("0/pipe");
    write("0/other");
    ASSERT_TRUE(QFile::link(file, link));
    UnexpectedFiles::makePipe(pipe);
    m_Collector.deleteBlock(link);
    m_Collector.deleteBlock(pipe);
    EXPECT_TRUE(QFileInfo(link).isSymLink());
    EXPECT_TRUE(UnexpectedFiles::exists(pipe));
    EXPECT_TRUE(QFile::exists(file));
}

TEST_F(ZebGarbageCollectorThreadTree, ANameThatCannotBeDecodedIsKept)
{
    write("0/other");
    const std::string name =
        QFile::encodeName(path("0/")).toStdString() + std::string(15, '-') + "\xff\xfe";
    std::fclose(std::fopen(name.c_str(), "w"));
    pass();
    // The temporary directory could not remove it.
    EXPECT_EQ(::unlink(name.c_str()), 0);
}

// The order

TEST_F(ZebGarbageCollectorThreadTree, FilesAreSweptInTheOrderOfTheDirectoryWithoutASort)
{
    for (int i = 0; i < 100; ++i)
        writeDead("0");
    const std::vector<std::string> order = listed(path("0"));
    ASSERT_FALSE(std::is_sorted(order.begin(), order.end())) << "this test needs some disorder";
    s_Removed.clear();
    pass();
    EXPECT_EQ(s_Removed, order);
}
