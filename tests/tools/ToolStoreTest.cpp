#include "tools/ToolStore.h"

#include "manager/ZebDataBlockManager.h"
#include "tools/MessageFilter.h"

#include "TemporaryTree.h"

#include <QDir>
#include <QFileInfo>

#include <gtest/gtest.h>

namespace {

// Sets TMPDIR for the length of a scope.
class TemporaryFolderSetting
{
public:
    explicit TemporaryFolderSetting(const std::string& value) : m_Old(qgetenv("TMPDIR"))
    {
        qputenv("TMPDIR", QByteArray::fromStdString(value));
    }
    ~TemporaryFolderSetting()
    {
        if (m_Old.isNull())
            qunsetenv("TMPDIR");
        else
            qputenv("TMPDIR", m_Old);
    }
    TemporaryFolderSetting(const TemporaryFolderSetting&) = delete;
    TemporaryFolderSetting& operator=(const TemporaryFolderSetting&) = delete;

private:
    const QByteArray m_Old;
};

} // namespace

TEST(ToolStore, SetsTheStoreUpOnARootOfItsOwnWhichGoesWithIt)
{
    MessageFilter::install(false);
    const TemporaryTree tree;
    const TemporaryFolderSetting setting(tree.top());
    QString root;
    {
        std::string reason;
        const std::unique_ptr<ToolStore> store = ToolStore::open(123456, reason);
        ASSERT_NE(store, nullptr) << reason;
        EXPECT_TRUE(ZebDataBlockManager::instance().isInitialized());
        EXPECT_EQ(ZebDataBlockManager::instance().maxDataCacheSize(), 123456);
        ASSERT_EQ(ZebDataBlockManager::instance().cacheRoots().size(), 1);
        root = ZebDataBlockManager::instance().cacheRoots().first();
        EXPECT_TRUE(root.startsWith(QString::fromStdString(tree.top() + "/zebtdx-")))
            << qPrintable(root);
        EXPECT_TRUE(QFileInfo(root).isDir());
    }
    EXPECT_FALSE(ZebDataBlockManager::instance().isInitialized());
    EXPECT_FALSE(QFileInfo::exists(root));
}

TEST(ToolStore, SaysWhenThereIsNoPlaceForItsRoot)
{
    MessageFilter::install(false);
    const TemporaryTree tree;
    const TemporaryFolderSetting setting(tree.path("missing"));
    std::string reason;
    EXPECT_EQ(ToolStore::open(123456, reason), nullptr);
    EXPECT_EQ(reason.rfind("cannot make a temporary folder: ", 0), 0U) << reason;
    EXPECT_FALSE(ZebDataBlockManager::instance().isInitialized());
}
