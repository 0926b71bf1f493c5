#include "selfcheck/ZebSelfCheckStore.h"

#include "manager/ZebDataBlockManager.h"
#include "selfcheck/TdxTester.h"
#include "support/MessageCapture.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include <unistd.h>

namespace {

// tdxLog() is on for the length of a scope.
class Logging : public TdxTester
{
public:
    Logging() { m_Logging = true; }
    ~Logging() { m_Logging = false; }
};

void writeFile(const QString& path)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    ASSERT_EQ(file.write("content"), 7);
}

QStringList entriesOf(const QString& folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::System |
                                  QDir::NoDotAndDotDot);
}

std::string nameWithDashes(int dashes)
{
    std::string name = "1";
    for (int i = 0; i < dashes; ++i)
        name += "-2";
    return name;
}

} // namespace

TEST(ZebSelfCheckStore, TheRootsAreNumberedFromOne)
{
    const QStringList expected = {QStringLiteral("data/.ZebaCache1"),
                                  QStringLiteral("data/.ZebaCache2")};
    EXPECT_EQ(ZebSelfCheckStore::rootsIn(QStringLiteral("data"), 2), expected);
    EXPECT_TRUE(ZebSelfCheckStore::rootsIn(QStringLiteral("data"), 0).isEmpty());
}

TEST(ZebSelfCheckStore, ClearingRemovesEverythingBelowAndLogsEachFolder)
{
    const QTemporaryDir top;
    const QString root = top.path() + QStringLiteral("/root");
    const QString inner = root + QStringLiteral("/sub/3");
    ASSERT_TRUE(QDir().mkpath(inner));
    writeFile(root + QStringLiteral("/file"));
    writeFile(root + QStringLiteral("/.hidden"));
    writeFile(inner + QStringLiteral("/block"));
    const MessageCapture messages;
    const Logging logging;
    ZebSelfCheckStore::clear({root, top.path() + QStringLiteral("/absent")});
    EXPECT_TRUE(QDir(root).exists());
    EXPECT_TRUE(entriesOf(root).isEmpty());
    const QString clearing = QStringLiteral("[ LOG ] Clearing Cache ");
    const QStringList expected = {
        clearing + root, clearing + root + QStringLiteral("/sub"), clearing + inner,
        QStringLiteral("[ LOG ] Cache Does not exist ") + top.path() + QStringLiteral("/absent")};
    EXPECT_EQ(messages.debugLines().join('\n').toStdString(), expected.join('\n').toStdString());
}

TEST(ZebSelfCheckStore, ClearingFollowsNoLinks)
{
    const QTemporaryDir top;
    const QString root = top.path() + QStringLiteral("/root");
    const QString outside = top.path() + QStringLiteral("/outside");
    ASSERT_TRUE(QDir().mkpath(root) && QDir().mkpath(outside));
    writeFile(outside + QStringLiteral("/kept"));
    ASSERT_TRUE(QFile::link(outside, root + QStringLiteral("/link")));
    ASSERT_TRUE(QFile::link(outside + QStringLiteral("/none"), root + QStringLiteral("/broken")));
    ZebSelfCheckStore::clear({root});
    EXPECT_TRUE(entriesOf(root).isEmpty());
    EXPECT_TRUE(QFile::exists(outside + QStringLiteral("/kept")));
}

TEST(ZebSelfCheckStore, ClearingReportsWhatItCannotRemoveAndContinues)
{
    const QTemporaryDir top;
    const QString sub = top.path() + QStringLiteral("/sub");
    ASSERT_TRUE(QDir().mkpath(sub));
    writeFile(sub + QStringLiteral("/other"));
    // Qt cannot decode this name, so it does not list the file.
    const std::string path = sub.toStdString() + "/\xFF";
    FILE* const file = std::fopen(path.c_str(), "w");
    ASSERT_NE(file, nullptr);
    std::fclose(file);
    writeFile(top.path() + QStringLiteral("/zzz"));
    const MessageCapture messages;
    ZebSelfCheckStore::clear({top.path()});
    EXPECT_EQ(messages.debugLines(), QStringList{QStringLiteral("Cannot Remove ") + sub});
    EXPECT_FALSE(QFile::exists(sub + QStringLiteral("/other")));
    EXPECT_EQ(entriesOf(top.path()), QStringList{QStringLiteral("sub")});
    EXPECT_EQ(::unlink(path.c_str()), 0);
}

TEST(ZebSelfCheckStore, OnlyBlockFilesCount)
{
    const QTemporaryDir top;
    const QString bucket = top.path() + QStringLiteral("/sub/3");
    ASSERT_TRUE(QDir().mkpath(bucket));
    for (const int dashes : {0, 14, 15, 16})
        writeFile(bucket + '/' + QString::fromStdString(nameWithDashes(dashes)));
    writeFile(top.path() + QStringLiteral("/sub/TdxLog.txt"));
    const QList<QFileInfo> files = ZebSelfCheckStore::blockFiles({top.path()});
    ASSERT_EQ(files.size(), 1);
    EXPECT_EQ(files.first().fileName().toStdString(), nameWithDashes(15));
}

TEST(ZebSelfCheckStore, TheStoreIsSetUpAndCleanedUpOnce)
{
    const QTemporaryDir top;
    const QStringList roots = ZebSelfCheckStore::rootsIn(top.path(), 2);
    ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    const MessageCapture messages;
    {
        ZebSelfCheckStore store(roots, 1 << 20, 7);
        EXPECT_TRUE(store.isReady());
        EXPECT_EQ(manager.cacheRoots(), roots);
        EXPECT_EQ(manager.maxDataCacheSize(), 1 << 20);
        EXPECT_EQ(manager.numBuckets(), 7);
        writeFile(roots.last() + QStringLiteral("/file"));
        store.cleanUp();
        EXPECT_FALSE(manager.isInitialized());
        EXPECT_TRUE(QFile::exists(roots.last() + QStringLiteral("/file")));
        store.close();
        EXPECT_TRUE(entriesOf(roots.last()).isEmpty());
        // After close(), the store may have another owner.
        manager.setup(roots, 1 << 20, 7, 0);
    }
    EXPECT_TRUE(manager.isInitialized());
    manager.cleanUp();
}
