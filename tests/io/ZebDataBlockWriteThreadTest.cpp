// The store's side of its writers: fences for all of them, their failures, and the root of each
// block. What a writer does alone is tested in WriterConformanceTest.cpp and
// WriterFlushConformanceTest.cpp.

#include "io/ZebDataBlockWriteThread.h"

#include "data/ZebDataReference.h"
#include "hash/ZebHashManager.h"
#include "support/BlockFiles.h"
#include "support/BytesOf.h"
#include "support/Fatal.h"
#include "support/FilesBelow.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"
#include "support/WaitUntil.h"
#include "support/WriterInside.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <vector>

TEST(ZebDataBlockWriteThread, AFlushOfTheStorePassesAFenceInEveryWriter)
{
    TemporaryStore::Options options;
    options.m_Roots = 2;
    TemporaryStore store(options);
    const ZebSmartPointer<ZebDataHash> hash =
        ZebHashManager::instance().getHash(QByteArray("of one root only"));
    manager().flushWrite(hash);
    for (ZebDataBlockWriteThread* const writer : qAsConst(StoreInside::writers())) {
        EXPECT_EQ(WriterInside::nextFenceId(*writer), 1);
        EXPECT_EQ(writer->requests(), 0);
        EXPECT_EQ(writer->requestsHandled(), 0);
    }
    manager().flushWrite(ZebSmartPointer<ZebDataHash>());
    for (ZebDataBlockWriteThread* const writer : qAsConst(StoreInside::writers()))
        EXPECT_EQ(WriterInside::nextFenceId(*writer), 1) << "a null hash makes no fence";
}

TEST(ZebDataBlockWriteThread, AFlushWithoutTheStoreIsFatal)
{
    EXPECT_FATAL(manager().flushWrite(ZebSmartPointer<ZebDataHash>()),
                 "Data Block Manager Not Initialized. Aborting");
}

TEST(ZebDataBlockWriteThread, AFailureReachesTheHostInTheManagersThread)
{
    ASSERT_EQ(manager().thread(), QThread::currentThread());
    TemporaryStore::Options options;
    options.m_Buckets = 1;
    TemporaryStore store(options);
    const QByteArray plain("cannot be written yet");
    const ZebDataHash hash(plain, ZebDataHash::Hash512);
    const QString expected = "Cannot Open File " +
                             BlockFiles::pathOf(hash, store.roots()[0], QString(), 1) + " : '" +
                             qt_error_string(ENOTDIR) + "'";
    FileInTheWay obstacle(BlockFiles::bucketOf(hash, store.roots()[0], QString(), 1));
    int received = 0;
    QObject receiver;
    QObject::connect(&manager(), &ZebDataBlockManager::writeError, &receiver,
                     [&](const QString& message) {
                         ++received;
                         EXPECT_EQ(message, expected);
                         EXPECT_EQ(QThread::currentThread(), manager().thread());
                         // Now, as each further attempt would queue one more message.
                         obstacle.remove();
                     });
    const ZebDataReference reference = manager().addBlock(plain, ZebModifyAccessor::Cached, true);
    EXPECT_EQ(received, 0) << "only the event loop delivers it";
    EXPECT_TRUE(waitUntil([&] { return received > 0; }));
    EXPECT_TRUE(store.messages().contains(expected));
    manager().flush();
    EXPECT_TRUE(QFile::exists(manager().getBlockDestination(QString(), reference.hash())));
}

TEST(ZebDataBlockWriteThread, EveryBlockOfFourRootsCanBeReadBackFromItsRoot)
{
    constexpr int count = 10000;
    TemporaryStore::Options options;
    options.m_Roots = 4;
    TemporaryStore store(options);
    const auto plain = [](int number) {
        return "four roots " + QByteArray::number(number);
    };
    std::vector<ZebDataReference> references;
    for (int i = 0; i < count; ++i)
        references.push_back(manager().addBlock(plain(i), ZebModifyAccessor::Cached, true));
    manager().flush(false, ZebDataBlockManager::WriteThreads);
    manager().freeAllBlocks();
    EXPECT_EQ(manager().liveBytes(), 0);
    int handled = 0;
    for (int root = 0; root < 4; ++root) {
        EXPECT_EQ(filesBelow({store.roots()[root]}).size(),
                  StoreInside::writers()[root]->requestsHandled());
        EXPECT_GT(StoreInside::writers()[root]->requestsHandled(), count / 8);
        handled += StoreInside::writers()[root]->requestsHandled();
    }
    EXPECT_EQ(handled, count);
    for (int i = 0; i < count; ++i) {
        const QByteArray expected = plain(i);
        int digits = 0;
        for (const QChar digit : references[static_cast<size_t>(i)].hash().left(4))
            digits += digit.digitValue();
        const ZebSmartPointer<ZebDataHash> hash = references[static_cast<size_t>(i)].hashPtr();
        ASSERT_TRUE(QFile::exists(
            BlockFiles::pathOf(*hash, store.roots()[digits % 4], QString(), options.m_Buckets)));
        const ZebConstAccessor accessor = references[static_cast<size_t>(i)].constAccessor();
        ASSERT_FALSE(accessor.isNull()) << i;
        ASSERT_EQ(bytesOf(accessor), expected);
    }
}
