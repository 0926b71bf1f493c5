// What setup() and the setters take, what they log, and what works without a store.

#include "manager/ZebDataBlockManager.h"

#include "data/ZebDataBlock.h"
#include "data/ZebDataReference.h"
#include "hash/ZebDataHash.h"
#include "support/BlockedThread.h"
#include "support/DeleteLockProbe.h"
#include "support/Fatal.h"
#include "support/MessageCapture.h"
#include "support/ResidencyKit.h"
#include "support/SettingsKit.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMetaMethod>
#include <QMetaProperty>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <limits>
#include <vector>

namespace {

const char* const s_NotInitialized = "Data Block Manager Not Initialized. Aborting";

QStringList noVirtualMemoryLines()
{
    return {
        line("Warning: #######################################################################"),
        line("Warning:  #####################################################################"),
        line("Warning: #######################################################################"),
        line("Warning: "),
        line("Warning: No Virtual Memory System detected."),
        line("Warning: It is highly recomended that you use Zeba with a virtual memory system."),
        line("Warning: "),
        line("Warning: #######################################################################"),
        line("Warning:  ##################################################################### "),
        line("Warning: #######################################################################"),
    };
}

// Builds the store, which logs its defaults, outside of what a test listens to.
void buildQuietly()
{
    const MessageCapture quiet;
    manager();
}

// A hash that is not interned, for operations that end the process before they look at it.
ZebDataHash plainHash()
{
    return ZebDataHash("bytes", ZebDataHash::Hash512);
}

} // namespace

TEST(ZebDataBlockManagerSettings, SetUpStoresWhatItIsGiven)
{
    TemporaryStore::Options options;
    options.m_Memory = 2147483648;
    options.m_Buckets = 20;
    const TemporaryStore store(options);
    EXPECT_TRUE(manager().isInitialized());
    EXPECT_EQ(manager().numBuckets(), 20);
    EXPECT_EQ(manager().maxDataCacheSize(), 2147483648);
    EXPECT_EQ(manager().cacheRoots(), store.roots());
    EXPECT_EQ(manager().managedBlocks(), 0);
    EXPECT_EQ(manager().liveBytes(), 0);
    EXPECT_EQ(manager().liveBlocks(), 0);
    EXPECT_FALSE(manager().garbageCollecting());
}

TEST(ZebDataBlockManagerSettings, SetUpWithoutRootsSucceeds)
{
    const MessageCapture messages;
    EXPECT_TRUE(manager().setup({}, 1000, 3, 4));
    EXPECT_TRUE(manager().isInitialized());
    EXPECT_TRUE(manager().cacheRoots().isEmpty());
    EXPECT_EQ(manager().numBuckets(), 3);
    manager().cleanUp();
}

TEST(ZebDataBlockManagerSettings, SetUpTakesAnyNumbers)
{
    const MessageCapture messages;
    manager().setup({}, -2, -7, -1);
    EXPECT_EQ(manager().maxDataCacheSize(), -2);
    EXPECT_EQ(manager().numBuckets(), -7);
    manager().cleanUp();
    manager().setup({}, 0, 0, 0);
    EXPECT_EQ(manager().maxDataCacheSize(), 0);
    EXPECT_EQ(manager().numBuckets(), 0);
    manager().cleanUp();
}

TEST(ZebDataBlockManagerSettings, SetUpWithMinusOneKeepsTheLimitAndLogsNothing)
{
    const KeptSettings kept;
    const Machine machine(100, 1);
    manager().setMaxDataCacheSize(12345678);
    const MessageCapture messages;
    manager().setup({});
    EXPECT_EQ(manager().maxDataCacheSize(), 12345678);
    EXPECT_EQ(manager().numBuckets(), 10);
    EXPECT_EQ(messages.debugLines(), QStringList());
    manager().cleanUp();
}

TEST(ZebDataBlockManagerSettings, SetUpLogsNothingAboutExistingVirtualMemory)
{
    buildQuietly();
    const Machine machine(100, 1);
    const MessageCapture messages;
    manager().setup({}, 3 * 1048576 + 1);
    EXPECT_EQ(messages.debugLines(), QStringList({sizeLine(3145729, 3), pendingLine(1572864, 1)}));
    manager().cleanUp();
}

TEST(ZebDataBlockManagerSettings, SetUpWarnsOfMissingVirtualMemoryFirst)
{
    buildQuietly();
    const Machine machine(100, 0);
    const MessageCapture messages;
    manager().setup({}, 1000);
    EXPECT_EQ(messages.debugLines(),
              noVirtualMemoryLines() + QStringList({sizeLine(1000, 0), pendingLine(1048576, 1)}));
    for (const MessageCapture::Message& message : messages.messages())
        EXPECT_FALSE(message.m_HasContext);
    manager().cleanUp();
}

TEST(ZebDataBlockManagerSettings, SetUpCreatesMissingRootsWithTheirParents)
{
    const MessageCapture messages;
    const QTemporaryDir directory;
    const QStringList roots = {directory.path() + line("/deep/er/one"),
                               directory.path() + line("/two/"), directory.path()};
    manager().setup(roots, 1000);
    for (const QString& root : roots)
        EXPECT_TRUE(QDir(root).exists()) << root.toStdString();
    // As given, not normalised.
    EXPECT_EQ(manager().cacheRoots(), roots);
    EXPECT_TRUE(QDir(roots.at(0)).isEmpty());
    manager().cleanUp();
}

TEST(ZebDataBlockManagerSettings, ARelativeRootIsCreatedBelowTheCurrentDirectory)
{
    const MessageCapture messages;
    const QTemporaryDir directory;
    const QString before = QDir::currentPath();
    ASSERT_TRUE(QDir::setCurrent(directory.path()));
    manager().setup({line("some/root")}, 1000);
    EXPECT_TRUE(QDir(directory.path() + line("/some/root")).exists());
    EXPECT_EQ(manager().cacheRoots(), QStringList(line("some/root")));
    QDir::setCurrent(before);
    manager().cleanUp();
}

TEST(ZebDataBlockManagerSettings, AnExistingRootIsNotExamined)
{
    const MessageCapture messages;
    const QTemporaryDir directory;
    const QFile::Permissions readOnly = QFile::ReadOwner | QFile::ExeOwner;
    ASSERT_TRUE(QFile::setPermissions(directory.path(), readOnly));
    EXPECT_TRUE(manager().setup({directory.path()}, 1000));
    EXPECT_FALSE(QFileInfo(directory.path()).permissions() & QFile::WriteOwner);
    EXPECT_TRUE(QDir(directory.path()).isEmpty());
    manager().cleanUp();
    QFile::setPermissions(directory.path(), readOnly | QFile::WriteOwner);
}

TEST(ZebDataBlockManagerSettings, ARootThatCannotBeCreatedEndsTheProcess)
{
    EXPECT_FATAL(manager().setup({line("/dev/null/cache/root")}, 1000),
                 "Cannot Create cache root at /dev/null/cache/root");
    // The first that can't be made is named, with its absolute path.
    EXPECT_FATAL(
        {
            QDir::setCurrent(line("/dev"));
            manager().setup({line("/dev"), line("null/cache"), line("/dev/null/x")}, 1000);
        },
        "Cannot Create cache root at /dev/null/cache");
}

TEST(ZebDataBlockManagerSettings, ARootThatIsAFileEndsTheProcess)
{
    EXPECT_FATAL(manager().setup({line("/dev/null")}, 1000),
                 "Cannot Create cache root at /dev/null");
}

TEST(ZebDataBlockManagerSettings, SetUpTwiceEndsTheProcess)
{
    // Checked first: the root would end the process with another message.
    EXPECT_FATAL(
        {
            manager().setup({}, 1000);
            manager().setup({line("/dev/null")}, 1000);
        },
        "Setup called twice on DataBlock Manager");
}

TEST(ZebDataBlockManagerSettings, EnumeratorsHaveTheNumbersThatHostsPass)
{
    EXPECT_EQ(static_cast<int>(ZebModifyAccessor::Cached), 0);
    EXPECT_EQ(static_cast<int>(ZebModifyAccessor::DontCache), 1);
    EXPECT_EQ(static_cast<int>(ZebDataBlockManager::PreloadHigh), 0);
    EXPECT_EQ(static_cast<int>(ZebDataBlockManager::PreloadNormal), 1);
    EXPECT_EQ(static_cast<int>(ZebDataBlockManager::PreloadLow), 2);
    EXPECT_EQ(static_cast<int>(ZebDataBlockManager::ReadThreads), 2);
    EXPECT_EQ(static_cast<int>(ZebDataBlockManager::WriteThreads), 4);
    EXPECT_EQ(static_cast<int>(ZebDataBlockManager::GarbageCollectorThreads), 8);
    EXPECT_EQ(static_cast<int>(ZebDataBlockManager::AllThreads), 14);
}

TEST(ZebDataBlockManagerSettings, TheWritePendingLimitFollowsLimitAndFactor)
{
    struct Row
    {
        qint64 m_Limit;
        float m_Factor;
        qint64 m_Pending;
    };
    constexpr qint64 most = std::numeric_limits<qint64>::max();
    const std::vector<Row> rows = {
        // Never under 1 MiB, also when the limit itself is.
        {100, 0.5F, 1048576},
        {0, 0.5F, 1048576},
        {1048576, 0.5F, 1048576},
        {1048576, 1.0F, 1048576},
        {-5, 1.0F, 1048576},
        {8388608, 0.0F, 1048576},
        {8388608, -1.0F, 1048576},
        {2097154, 0.5F, 1048577},
        {2147483648, 0.5F, 1073741824},
        {2147483648, 0.25F, 536870912},
        // A factor above 1 reaches no further than the limit.
        {3000000, 1.5F, 3000000},
        {most, 2.0F, most},
        // Single precision: 24 bits of the limit, in the product as well.
        {33554433, 1.0F, 33554432},
        {33554435, 1.0F, 33554435},
        {33554435, 0.75F, 25165828},
        {1073741825, 0.5F, 536870912},
        {1000000000, 0.1F, 100000000},
        {16777217, 0.3F, 5033165},
    };
    const KeptSettings kept;
    for (const Row& row : rows) {
        manager().setMaxWritePendingSizeFactor(row.m_Factor);
        manager().setMaxDataCacheSize(row.m_Limit);
        EXPECT_EQ(StoreInside::writePendingLimit(), row.m_Pending)
            << row.m_Limit << " * " << row.m_Factor;
        EXPECT_EQ(manager().maxDataCacheSize(), row.m_Limit);
        EXPECT_EQ(manager().maxWritePendingSizeFactor(), row.m_Factor);
        // The other order of the two setters ends the same.
        manager().setMaxWritePendingSizeFactor(0.125F);
        manager().setMaxWritePendingSizeFactor(row.m_Factor);
        EXPECT_EQ(StoreInside::writePendingLimit(), row.m_Pending)
            << row.m_Limit << " * " << row.m_Factor;
    }
}

TEST(ZebDataBlockManagerSettings, SettersOfLimitAndFactorLogBothLimits)
{
    const KeptSettings kept;
    manager().setMaxWritePendingSizeFactor(0.5F);
    const MessageCapture messages;
    manager().setMaxDataCacheSize(10485761);
    manager().setMaxWritePendingSizeFactor(1.0F);
    manager().setMaxDataCacheSize(-2097151);
    EXPECT_EQ(messages.debugLines(),
              QStringList({sizeLine(10485761, 10), pendingLine(5242880, 5), sizeLine(10485761, 10),
                           pendingLine(10485761, 10),
                           // Truncated toward zero, not downward.
                           sizeLine(-2097151, -1), pendingLine(1048576, 1)}));
    for (const MessageCapture::Message& message : messages.messages())
        EXPECT_FALSE(message.m_HasContext);
}

TEST(ZebDataBlockManagerSettings, TheSetterOfTheTargetLogsIt)
{
    const KeptSettings kept;
    const qint64 pending = StoreInside::writePendingLimit();
    const MessageCapture messages;
    manager().setTargetFreeMemorySize(1048575);
    EXPECT_EQ(manager().targetFreeMemorySize(), 1048575);
    manager().setTargetFreeMemorySize(-1048577);
    EXPECT_EQ(manager().targetFreeMemorySize(), -1048577);
    EXPECT_EQ(messages.debugLines(),
              QStringList({targetLine(1048575, 0), targetLine(-1048577, -1)}));
    EXPECT_EQ(StoreInside::writePendingLimit(), pending);
}

TEST(ZebDataBlockManagerSettings, ALowerLimitEvictsNothingByItself)
{
    const TemporaryStore store;
    const ZebDataReference reference =
        manager().addBlock(QByteArray(1000, 'x'), ZebModifyAccessor::Cached, true);
    manager().setMaxDataCacheSize(10);
    EXPECT_EQ(manager().liveBytes(), 1000);
    EXPECT_TRUE(reference.isInMemory());
}

TEST(ZebDataBlockManagerSettings, SettingTheFlagSignalsEachChangeOnce)
{
    const MessageCapture messages;
    std::vector<bool> signalled;
    QObject context;
    QObject::connect(&manager(), &ZebDataBlockManager::allFreeBlocksFlushedChanged, &context,
                     [&signalled](bool flushed) {
                         // The new value is set when the signal is emitted.
                         EXPECT_EQ(manager().allFreeBlocksFlushed(), flushed);
                         signalled.push_back(flushed);
                     });
    EXPECT_FALSE(manager().allFreeBlocksFlushed());
    manager().setAllFreeBlocksFlushed(false);
    manager().setAllFreeBlocksFlushed(true);
    manager().setAllFreeBlocksFlushed(true);
    manager().setAllFreeBlocksFlushed(false);
    EXPECT_EQ(signalled, std::vector<bool>({true, false}));
}

TEST(ZebDataBlockManagerSettings, TheFlagIsReadAndSetWithoutTheDeleteLock)
{
    const MessageCapture messages;
    EXPECT_FALSE(waitsForLock(StoreInside::deleteLock(), [] {
        manager().setAllFreeBlocksFlushed(true);
        EXPECT_TRUE(manager().allFreeBlocksFlushed());
    }));

    // Nor is it held while the signal is emitted.
    QObject context;
    bool free = false;
    QObject::connect(&manager(), &ZebDataBlockManager::allFreeBlocksFlushedChanged, &context,
                     [&](bool) { free = deleteLockIsFree(); });
    manager().setAllFreeBlocksFlushed(false);
    EXPECT_TRUE(free);
}

TEST(ZebDataBlockManagerSettings, SignalsAndSlotsHaveTheirIndices)
{
    const QMetaObject& meta = ZebDataBlockManager::staticMetaObject;
    EXPECT_STREQ(meta.className(), "ZebDataBlockManager");
    EXPECT_EQ(meta.superClass(), &QObject::staticMetaObject);
    const int first = meta.methodOffset();
    ASSERT_EQ(meta.methodCount() - first, 5);
    const auto method = [&](int index) {
        return meta.method(first + index);
    };

    const char* const signatures[] = {"allFreeBlocksFlushedChanged(bool)", "writeError(QString)",
                                      "cacheSizeUpdate(qint64)", "allFreeBlocksFlushed()",
                                      "setAllFreeBlocksFlushed(bool)"};
    for (int index = 0; index < 5; ++index) {
        EXPECT_EQ(meta.indexOfMethod(signatures[index]), first + index) << signatures[index];
        EXPECT_EQ(method(index).methodType(), index < 3 ? QMetaMethod::Signal : QMetaMethod::Slot);
        EXPECT_EQ(method(index).access(), QMetaMethod::Public);
        EXPECT_STREQ(method(index).typeName(), index == 3 ? "bool" : "void");
    }
    EXPECT_EQ(method(2).parameterNames(), QList<QByteArray>({"Size"}));
}

TEST(ZebDataBlockManagerSettings, TheFlagIsAPropertyWithoutWriteOrNotify)
{
    const MessageCapture messages;
    const QMetaObject& meta = ZebDataBlockManager::staticMetaObject;
    ASSERT_EQ(meta.propertyCount() - meta.propertyOffset(), 1);
    const QMetaProperty property = meta.property(meta.propertyOffset());
    EXPECT_STREQ(property.name(), "allFreeBlocksFlushed");
    EXPECT_STREQ(property.typeName(), "bool");
    EXPECT_TRUE(property.isReadable());
    EXPECT_FALSE(property.isWritable());
    EXPECT_FALSE(property.hasNotifySignal());
    EXPECT_FALSE(property.isResettable());

    EXPECT_EQ(manager().property("allFreeBlocksFlushed"), QVariant(false));
    manager().setAllFreeBlocksFlushed(true);
    EXPECT_EQ(manager().property("allFreeBlocksFlushed"), QVariant(true));
    EXPECT_FALSE(manager().setProperty("allFreeBlocksFlushed", false));
    EXPECT_TRUE(manager().allFreeBlocksFlushed());
    manager().setAllFreeBlocksFlushed(false);
}

TEST(ZebDataBlockManagerSettings, SlotsCanBeCalledByName)
{
    const MessageCapture messages;
    ASSERT_TRUE(
        QMetaObject::invokeMethod(&manager(), "setAllFreeBlocksFlushed", Q_ARG(bool, true)));
    bool flushed = false;
    ASSERT_TRUE(
        QMetaObject::invokeMethod(&manager(), "allFreeBlocksFlushed", Q_RETURN_ARG(bool, flushed)));
    EXPECT_TRUE(flushed);
    manager().setAllFreeBlocksFlushed(false);
}

TEST(ZebDataBlockManagerSettings, AdmissionNeedsAStoreThatIsSetUp)
{
    for (const auto caching : {ZebModifyAccessor::Cached, ZebModifyAccessor::DontCache}) {
        for (const bool immediate : {false, true}) {
            EXPECT_FATAL(manager().addBlock("bytes", caching, immediate), s_NotInitialized);
            // Also for no block at all, which is legal otherwise.
            EXPECT_FATAL(StoreInside::addBlock(nullptr, caching, immediate), s_NotInitialized);
        }
    }
    EXPECT_FATAL(manager().getReference(nullptr), s_NotInitialized);
    EXPECT_FATAL(manager().createNewBlock("bytes"), s_NotInitialized);
    EXPECT_FATAL(manager().createNewBlock(-1), s_NotInitialized);
}

TEST(ZebDataBlockManagerSettings, ResidencyNeedsAStoreThatIsSetUp)
{
    EXPECT_FATAL(ResidencyKit::makeBlockLive(nullptr, nullptr), s_NotInitialized);
    EXPECT_FATAL(ResidencyKit::getDataBlock(nullptr), s_NotInitialized);
    EXPECT_FATAL(manager().blockSize(nullptr), s_NotInitialized);
    for (const auto operation :
         {&ResidencyKit::lockBlock, &ResidencyKit::unlockBlock, &ResidencyKit::blockUsed}) {
        EXPECT_FATAL(
            {
                ZebDataHash hash = plainHash();
                operation(&hash);
            },
            s_NotInitialized);
    }
    EXPECT_FATAL(
        {
            ZebDataHash hash = plainHash();
            manager().isInMemory(&hash);
        },
        s_NotInitialized);
}

TEST(ZebDataBlockManagerSettings, AfterCleanUpOperationsEndTheProcessAgain)
{
    EXPECT_FATAL(
        {
            TemporaryStore store;
            store.cleanUp();
            manager().addBlock("bytes");
        },
        s_NotInitialized);
    EXPECT_FATAL(
        {
            TemporaryStore store;
            const ZebDataReference reference = manager().addBlock("bytes");
            reference.resolveWork();
            store.cleanUp();
            manager().isInMemory(reference.hashPtr().data());
        },
        s_NotInitialized);
}

TEST(ZebDataBlockManagerSettings, FreeingABlockReturnsSilentlyWhenNothingIsSetUp)
{
    buildQuietly();
    const MessageCapture messages;
    ASSERT_FALSE(manager().isInitialized());
    ZebDataHash hash = plainHash();
    StoreInside::freeBlock(&hash, true, false);
    EXPECT_TRUE(messages.messages().isEmpty());
}

TEST(ZebDataBlockManagerSettings, ReadOutsNeedNoSetUp)
{
    const MessageCapture messages;
    ASSERT_FALSE(manager().isInitialized());
    EXPECT_EQ(manager().liveBlocks(), 0);
    EXPECT_EQ(manager().liveBytes(), 0);
    EXPECT_EQ(manager().managedBlocks(), 0);
    EXPECT_FALSE(manager().garbageCollecting());
    EXPECT_TRUE(manager().cacheRoots().isEmpty());
    EXPECT_TRUE(manager().isInMemory(nullptr));
}
