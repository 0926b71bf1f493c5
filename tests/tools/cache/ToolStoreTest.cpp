#include "tools/cache/ToolStore.h"

#include "data/ZebDataReference.h"
#include "manager/ZebDataBlockManager.h"
#include "tools/terminal/MessageFilter.h"
#include "tools/terminal/StopRequest.h"
#include "tools/terminal/ToolError.h"

#include "support/TemporaryTree.h"
#include "tools/support/ErrorLines.h"

#include "support/WaitUntil.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

class ToolStoreTest : public ::testing::Test
{
protected:
    static constexpr qint64 s_Memory = 1024 * 1024;

    void SetUp() override { MessageFilter::install(false); }

    std::unique_ptr<ToolStore> open(ToolStore::Roots roots = ToolStore::Roots::Make)
    {
        std::unique_ptr<ToolStore> store;
        const auto error = ToolError::of([&] {
            store = ToolStore::open(m_Place, {roots, s_Memory}, [] { std::_Exit(3); });
        });
        m_Reason = error ? error->what() : "";
        return store;
    }

    // The store's signals are queued for this thread.
    int m_ArgumentCount = 1;
    char m_Name[8] = "test";
    char* m_Arguments[2] = {m_Name, nullptr};
    QCoreApplication m_Application{m_ArgumentCount, m_Arguments};

    TemporaryTree m_Tree;
    StorePlace m_Place;
    std::string m_Reason;
};

TEST_F(ToolStoreTest, SetsTheStoreUpAtThePlaceAndCleansItUp)
{
    m_Place.m_Roots = {m_Tree.path("a/b"), m_Tree.path("c")};
    m_Place.m_Buckets = 7;
    m_Place.m_SubCache = "part";
    {
        const std::unique_ptr<ToolStore> store = open();
        ASSERT_NE(store, nullptr) << m_Reason;
        ZebDataBlockManager& manager = ZebDataBlockManager::instance();
        EXPECT_TRUE(manager.isInitialized());
        EXPECT_EQ(manager.maxDataCacheSize(), s_Memory);
        EXPECT_EQ(manager.numBuckets(), 7);
        EXPECT_EQ(manager.cacheRoots(), QStringList({QString::fromStdString(m_Tree.path("a/b")),
                                                     QString::fromStdString(m_Tree.path("c"))}));
        const ZebDataReference reference =
            manager.addBlock(QByteArray("content"), ZebModifyAccessor::Cached, true);
        ErrorLines errors;
        store->flush(errors.report());
        EXPECT_THAT(errors.lines(), IsEmpty());
        EXPECT_TRUE(
            QFile::exists(manager.getBlockDestination(QStringLiteral("part"), reference.hash())));
    }
    EXPECT_FALSE(ZebDataBlockManager::instance().isInitialized());
    EXPECT_TRUE(QFileInfo(QString::fromStdString(m_Tree.path("c"))).isDir());
}

TEST_F(ToolStoreTest, MissingRootsAreMadeOnlyWhenAsked)
{
    m_Place.m_Roots = {m_Tree.path("missing")};
    EXPECT_EQ(open(ToolStore::Roots::Expect), nullptr);
    EXPECT_EQ(m_Reason, "cache root " + m_Tree.path("missing") + ": No such file or directory");
    EXPECT_FALSE(QFileInfo::exists(QString::fromStdString(m_Tree.path("missing"))));
    EXPECT_FALSE(ZebDataBlockManager::instance().isInitialized());
    EXPECT_NE(open(), nullptr);
    EXPECT_NE(open(ToolStore::Roots::Expect), nullptr);
}

TEST_F(ToolStoreTest, AFileInThePlaceOfARootIsAReason)
{
    m_Tree.file("file", "");
    m_Place.m_Roots = {m_Tree.path("file")};
    for (const ToolStore::Roots roots : {ToolStore::Roots::Make, ToolStore::Roots::Expect}) {
        EXPECT_EQ(open(roots), nullptr);
        EXPECT_EQ(m_Reason, "cache root " + m_Tree.path("file") + ": Not a directory");
    }
    m_Place.m_Roots = {m_Tree.path("file/below")};
    EXPECT_EQ(open(), nullptr);
    EXPECT_EQ(m_Reason, "cache root " + m_Tree.path("file/below") + ": Not a directory");
}

TEST_F(ToolStoreTest, ATemporaryFaultIsReportedOnceAndNothingIsLost)
{
    m_Place.m_Roots = {m_Tree.path("root")};
    m_Place.m_Buckets = 1;
    const std::unique_ptr<ToolStore> store = open();
    ASSERT_NE(store, nullptr) << m_Reason;
    // The bucket cannot be created while a file has its name.
    m_Tree.file("root/main/0", "");
    ErrorLines errors;
    const ZebDataReference reference = ZebDataBlockManager::instance().addBlock(
        QByteArray("content"), ZebModifyAccessor::Cached, true);
    ASSERT_TRUE(waitUntil([&] {
        store->watchWrites(errors.report());
        return !errors.lines().empty();
    }));
    m_Tree.remove("root/main/0");
    store->flush(errors.report());
    EXPECT_THAT(errors.lines(),
                ::testing::ElementsAre(AllOf(MatchesRegex("zebtdx: .*; retrying"),
                                             HasSubstr(reference.hash().toStdString()))));
    EXPECT_EQ(errors.report().count(), 0) << "nothing failed in the end";
    EXPECT_TRUE(QFile::exists(ZebDataBlockManager::instance().getBlockDestination(
        QStringLiteral("main"), reference.hash())));
}

TEST_F(ToolStoreTest, APermanentFaultGivesUp)
{
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto fillAFullDisk = [this] {
        m_Place.m_Roots = {m_Tree.path("root")};
        m_Place.m_Buckets = 1;
        const std::unique_ptr<ToolStore> store = open();
        m_Tree.file("root/main/0", "");
        ProgressBar bar = ProgressBar::onStandardError(false);
        ErrorReport errors(bar);
        const ZebDataReference reference = ZebDataBlockManager::instance().addBlock(
            QByteArray("content"), ZebModifyAccessor::Cached, true);
        for (;;)
            store->watchWrites(errors, 200);
    };
    EXPECT_EXIT(fillAFullDisk(), ::testing::ExitedWithCode(3),
                "; retrying\n"
                "zebtdx: writes to the disk cache keep failing; giving up, .*\n$");
}

TEST_F(ToolStoreTest, AStopDoesNotWaitForAPermanentFaultEither)
{
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto finishOnAFullDisk = [this] {
        m_Place.m_Roots = {m_Tree.path("root")};
        m_Place.m_Buckets = 1;
        const std::unique_ptr<ToolStore> store = open();
        m_Tree.file("root/main/0", "");
        ProgressBar bar = ProgressBar::onStandardError(false);
        ErrorReport errors(bar);
        const ZebDataReference reference = ZebDataBlockManager::instance().addBlock(
            QByteArray("content"), ZebModifyAccessor::Cached, true);
        // As when a signal ends the command.
        std::signal(SIGTERM, SIG_DFL);
        StopRequest::install(true);
        std::raise(SIGTERM);
        EXPECT_THROW(StopRequest::check(), StopRequest::Stopped);
        store->finish(errors, 200);
    };
    EXPECT_EXIT(finishOnAFullDisk(), ::testing::ExitedWithCode(3),
                "zebtdx: stopped by signal 15; .*\n"
                ".*; retrying\n"
                "zebtdx: writes to the disk cache keep failing; giving up, .*\n$");
}
