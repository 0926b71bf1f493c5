// The messages of the store checks when they fail, and their workers on their own.

#include "selfcheck/TdxTester.h"

#include "data/ZebDataReference.h"
#include "hash/ZebDataHash.h"
#include "hash/ZebHashManager.h"
#include "selfcheck/ZebByteChain.h"
#include "selfcheck/ZebLiveReferences.h"
#include "selfcheck/ZebSharedRandom.h"
#include "selfcheck/ZebThreadedIo.h"
#include "support/BlockedThread.h"
#include "support/HeldWriter.h"
#include "support/Manager.h"
#include "support/MessageCapture.h"
#include "support/NoBlocks.h"
#include "support/SampleFolder.h"
#include "support/SettingsKit.h"
#include "support/TemporaryStore.h"

#include "manager/ZebDataBlockManager.h"

#include <QSet>
#include <QThreadPool>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

class Logging : public TdxTester
{
public:
    Logging() { m_Logging = true; }
    ~Logging() { m_Logging = false; }
};

std::string lastOf(const MessageCapture& messages)
{
    return messages.debugLines().last().toStdString();
}

} // namespace

TEST(TdxTesterStore, AMissingCorpusIsReported)
{
    const SampleFolder folder(0);
    TdxTester tester;
    const MessageCapture messages;
    EXPECT_FALSE(tester.testDataBlock());
    EXPECT_EQ(lastOf(messages), "Cannot open Test Data file");
    EXPECT_FALSE(tester.testDataBlockCompression());
    EXPECT_EQ(lastOf(messages), "Cannot open Test Data file");
}

TEST(TdxTesterStore, EveryLevelOfCompressionIsMeasured)
{
    const SampleFolder folder(SampleData::Text);
    TdxTester tester;
    const MessageCapture messages;
    EXPECT_TRUE(tester.testDataBlockCompression());
    const QStringList lines = messages.debugLines();
    for (int level = 0; level < 10; ++level) {
        EXPECT_EQ(lines.filter(QStringLiteral("   Compressed Size at %1 ").arg(level)).size(), 1);
        EXPECT_EQ(lines.filter(QStringLiteral(" Level %1 compressed at ").arg(level)).size(), 1);
        EXPECT_EQ(lines.filter(QStringLiteral(" Level %1 deocompressed at ").arg(level)).size(), 1);
    }
}

TEST(TdxTesterStore, ThreeSizesOfHashArePrinted)
{
    TdxTester tester;
    const MessageCapture messages;
    EXPECT_TRUE(tester.testHashes());
    int found = 0;
    for (const QString& line : messages.debugLines()) {
        for (const char* const size : {"256 - ", "512 - ", "1024 - "})
            found += line.startsWith(QLatin1String(size)) && line.endsWith('\n') ? 1 : 0;
    }
    EXPECT_EQ(found, 3);
}

TEST(TdxTesterStore, TheLogFollowsTheRegistryStepByStep)
{
    const SampleFolder folder(0);
    Logging tester;
    const MessageCapture messages;
    EXPECT_TRUE(tester.testHashManagerSingleThreaded());
    const QStringList lines = messages.debugLines();
    EXPECT_EQ(lines.filter(QStringLiteral("[ LOG ] Ptr ")).size(), 7);
    EXPECT_TRUE(messages.contains(QStringLiteral("[ LOG ] Ptr Four set to zero")));
    EXPECT_TRUE(messages.contains(QStringLiteral("==== ZebTdx Hash Stats ====")));
}

TEST(TdxTesterStore, WithTheLogOffTheRegistryPrintsNoFigures)
{
    const SampleFolder folder(0);
    TdxTester tester;
    const MessageCapture messages;
    EXPECT_TRUE(tester.testHashManagerSingleThreaded());
    EXPECT_FALSE(messages.contains(QStringLiteral("==== ZebTdx Hash Stats ====")));
    EXPECT_TRUE(messages.debugLines().filter(QStringLiteral("LOG")).isEmpty());
}

TEST(TdxTesterStore, HashesThatTheHostKeepsFailTheChecks)
{
    const SampleFolder folder(0);
    const ZebSmartPointer<ZebDataHash> left = ZebHashManager::instance().getHash(QByteArray("x"));
    TdxTester tester;
    const MessageCapture messages;
    EXPECT_FALSE(tester.testDataBlockManagerDataStress());
    EXPECT_EQ(lastOf(messages), "Data Block Manager has managed blocks");
    EXPECT_FALSE(tester.testDataBlockManagerBasic());
    EXPECT_EQ(lastOf(messages), "Managed Block Count is not 0");
    EXPECT_FALSE(tester.testGarbageCollection());
    EXPECT_EQ(lastOf(messages), "[!!] Hash count is not 0");
    EXPECT_FALSE(tester.testHashingJobs());
    EXPECT_EQ(lastOf(messages), "[ !! ] Mismatch in size of hashes, is 1 should be 0");
    EXPECT_FALSE(tester.testHashingCreate());
    EXPECT_EQ(lastOf(messages), "[ !! ] Mismatch in size of hashes, is 2 should be 1");
    EXPECT_FALSE(tester.testDataBlockManagerSingleThread());
    EXPECT_EQ(lastOf(messages), "hash Count failure shold be one is 2");
    EXPECT_FALSE(ZebDataBlockManager::instance().isInitialized());
}

TEST(TdxTesterStore, TheSingleThreadCheckRequiresTheConstantCount)
{
    const SampleFolder folder(0);
    TdxTester tester;
    const MessageCapture messages;
    const NoBlocks noBlocks;
    EXPECT_FALSE(tester.testDataBlockManagerSingleThread());
    EXPECT_EQ(lastOf(messages), "Block count failure, should be 1 is 0");
}

TEST(TdxTesterStore, TheChecksOfFilesNeedOneThreadOnly)
{
    const SampleFolder folder(0);
    QThreadPool* const pool = QThreadPool::globalInstance();
    const int before = pool->maxThreadCount();
    pool->setMaxThreadCount(1);
    TdxTester tester;
    const MessageCapture messages;
    EXPECT_TRUE(tester.testDontCacheTest()) << lastOf(messages);
    EXPECT_TRUE(tester.testGarbageCollection()) << lastOf(messages);
    pool->setMaxThreadCount(before);
}

TEST(ZebByteChain, IsTheSameOnEveryMachineAndDiffersBySeed)
{
    // 0 * 214013 + 2531011 is 0x269EC3, whose bits from bit 16 on are 0x26.
    ZebByteChain chain(0);
    EXPECT_EQ(chain.next(), 0x26U);
    // The value is the next seed: 38 * 214013 + 2531011 is 0xA2B651, whose bits from 16 on are
    // 0xA2.
    EXPECT_EQ(chain.next(), 0xA2U);
    EXPECT_EQ(ZebByteChain(0).nextByte(), 0x26);
    QSet<QByteArray> distinct;
    for (quint32 seed = 0; seed < 11000; ++seed)
        distinct.insert(ZebByteChain::bytes(seed, 64));
    EXPECT_EQ(distinct.size(), 11000);
}

TEST(ZebLiveReferences, ACreatorAdds255DistinctBlocks)
{
    const TemporaryStore store;
    ZebLiveReferences::resetCounters();
    ZebLiveReferences::create();
    EXPECT_EQ(ZebLiveReferences::count(), 255);
    EXPECT_EQ(ZebHashManager::instance().hashCount(), 255);
    EXPECT_EQ(ZebLiveReferences::bytesProcessed(), 256 * 256 * 1024);
    ZebLiveReferences::modify();
    EXPECT_EQ(ZebLiveReferences::count(), 255);
    EXPECT_EQ(ZebLiveReferences::bytesSummed(), 0);
    ZebLiveReferences::read();
    EXPECT_GT(ZebLiveReferences::bytesSummed(), 0);
    for (const ZebDataReference& reference : ZebLiveReferences::snapshot()) {
        const ZebConstAccessor accessor = reference.constAccessor();
        ASSERT_FALSE(accessor.isNull());
        EXPECT_EQ(accessor.data()[0], accessor.data()[accessor.size() - 1]);
    }
    EXPECT_EQ(ZebLiveReferences::remove(), 254);
    EXPECT_EQ(ZebLiveReferences::count(), 1);
    ZebLiveReferences::clear();
}

TEST(ZebLiveReferences, WorkersOnAnEmptyMapDoNothing)
{
    const TemporaryStore store;
    ZebLiveReferences::resetCounters();
    ZebLiveReferences::read();
    ZebLiveReferences::modify();
    EXPECT_EQ(ZebLiveReferences::remove(), 0);
    EXPECT_EQ(ZebLiveReferences::count(), 0);
    EXPECT_EQ(ZebLiveReferences::bytesProcessed(), 0);
}

namespace {

class ZebLiveReferencesInPool : public testing::TestWithParam<int>
{
protected:
    ZebLiveReferencesInPool() : m_Before(QThreadPool::globalInstance()->maxThreadCount())
    {
        QThreadPool::globalInstance()->setMaxThreadCount(GetParam());
    }
    ~ZebLiveReferencesInPool() override
    {
        QThreadPool::globalInstance()->setMaxThreadCount(m_Before);
    }

private:
    int m_Before;
};

} // namespace

TEST_P(ZebLiveReferencesInPool, TheRemoverTakesReferencesWhileOthersAddThem)
{
    const TemporaryStore store;
    EXPECT_GE(ZebLiveReferences::runAll(), 254);
    EXPECT_EQ(ZebLiveReferences::count(), 255);
    EXPECT_EQ(ZebHashManager::instance().hashCount(), 255);
    ZebLiveReferences::clear();
}

INSTANTIATE_TEST_SUITE_P(Threads, ZebLiveReferencesInPool, testing::Values(1, 8));

// The blocks of one root pile up in memory, and no task waits for them.
TEST(ZebThreadedIo, CreatesItsBlocksFasterThanTheWritersWriteThem)
{
    const TemporaryStore store;
    const KeptSettings settings;
    manager().setMaxWritePendingSizeFactor(0.0F);
    constexpr int blocks = 100;
    constexpr int bytes = 16 * 1024;
    ZebThreadedIo io(blocks, bytes);
    {
        HeldWriter held;
        BlockedThread creator([&io] { io.create(); });
        EXPECT_TRUE(creator.ends());
        EXPECT_TRUE(manager().isWriteThreadsFull());
        held.release();
    }
    EXPECT_EQ(io.references(), blocks);
    io.clear();
}

TEST(ZebSharedRandom, ItsValuesAreThoseOfTheProcess)
{
    std::srand(5);
    std::vector<int> expected(100);
    std::generate(expected.begin(), expected.end(), &std::rand);
    std::srand(5);
    std::vector<int> values(100);
    std::generate(values.begin(), values.end(), &ZebSharedRandom::value);
    EXPECT_EQ(values, expected);
    for (const int value : values)
        EXPECT_LT(ZebSharedRandom::below(value % 7 + 1), value % 7 + 1);
}

// No check gets this far, because the comparisons before it never hold.
TEST(ZebThreadedIo, ReadsEvictedBlocksWhileNewBlocksAreAdded)
{
    TemporaryStore::Options options;
    options.m_Roots = 2;
    options.m_Memory = 1024 * 1024;
    TemporaryStore store(options);
    constexpr int blocks = 200;
    constexpr int bytes = 16 * 1024;
    ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    ZebThreadedIo io(blocks, bytes);
    io.create();
    EXPECT_EQ(io.references(), blocks);
    manager.flush(true, ZebDataBlockManager::AllThreads);
    manager.freeAllBlocks();
    EXPECT_FALSE(io.restsOnDisk());
    EXPECT_EQ(lastOf(store.messages()), "After Initial Block count is not zero it is -1");
    {
        const NoBlocks noBlocks;
        EXPECT_FALSE(io.restsOnDisk());
        EXPECT_EQ(lastOf(store.messages()), "Num of Managed Blocks 200");
    }
    io.mix();
    EXPECT_EQ(io.references(), blocks + blocks / 10);
    EXPECT_EQ(io.bytesRead(), qint64(blocks) * bytes);
    EXPECT_TRUE(store.messages().contains(QStringLiteral("Preloading 200 Items")));
    EXPECT_EQ(store.messages().debugLines().filter(QStringLiteral("Accessed 3Mb   in ")).size(), 1);
    io.clear();
    store.cleanUp();
    EXPECT_EQ(ZebDataHash::hashCount(), 0);
}
