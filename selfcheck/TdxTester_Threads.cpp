// The checks of the store under many threads.

#include "selfcheck/TdxTester.h"

#include "data/ZebBlockFuture.h"
#include "data/ZebDataReference.h"
#include "hash/ZebDataHash.h"
#include "hash/ZebHashManager.h"
#include "manager/ZebDataBlockManager.h"
#include "selfcheck/ZebLiveReferences.h"
#include "selfcheck/ZebSelfCheck.h"
#include "selfcheck/ZebSelfCheckStore.h"
#include "selfcheck/ZebThreadedIo.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFuture>
#include <QThreadPool>
#include <QtConcurrent>

using ZebByteUnits::s_BytesPerMiB;
using ZebSelfCheck::failure;
using ZebSelfCheck::line;
using ZebSelfCheck::s_Buckets;

namespace {

constexpr int s_Roots = 4;
constexpr int s_DistinctBlocks = 255;

// 40 rounds of a creator, a reader and a modifier.
void runRounds(int megabytes)
{
    constexpr int rounds = 40;
    ZebLiveReferences::resetCounters();
    QElapsedTimer timer;
    timer.start();
    for (int round = 0; round < rounds; ++round) {
        ZebLiveReferences::expectCreators(1);
        QFuture<void> creator = ZebLiveReferences::startCreator();
        QFuture<void> reader = QtConcurrent::run(&ZebLiveReferences::read);
        QFuture<void> modifier = QtConcurrent::run(&ZebLiveReferences::modify);
        creator.waitForFinished();
        reader.waitForFinished();
        modifier.waitForFinished();
        line("Done %d", round);
    }
    const qint64 elapsed = timer.elapsed();
    const double processed = ZebSelfCheck::megabytes(ZebLiveReferences::bytesProcessed());
    line("Processed %.2fMb in %.2fs at %.2fMbs with %d Cache", processed,
         ZebSelfCheck::seconds(elapsed), ZebSelfCheck::perSecond(processed, elapsed), megabytes);
}

// Whether every distinct block is stored once and has no other accessor.
bool blocksAreStoredOnce()
{
    if (ZebDataHash::hashCount() != s_DistinctBlocks) {
        return failure("Hash Count is %d rather than 255", ZebDataHash::hashCount());
    }
    const QList<ZebDataReference> references = ZebLiveReferences::snapshot();
    if (references.size() != s_DistinctBlocks)
        return failure("Invalid Number of Data Refs");
    for (const ZebDataReference& reference : references) {
        const ZebConstAccessor accessor = reference.constAccessor();
        const int count = accessor.isNull() ? 0 : accessor.count();
        if (count != 1)
            return failure("Incorrect accessor count %d", count);
    }
    return true;
}

bool noHashIsLeft()
{
    if (ZebDataHash::hashCount() == 0)
        return true;
    line("Number of Managed Hashes %d", ZebHashManager::instance().hashCount());
    line("Hashing Job COunt %d", ZebBlockFuture::numHashJobs());
    line("Number of references %d", ZebDataReference::referenceCount());
    line("Allocates %d", ZebDataReference::allocCount());
    ZebHashManager::instance().printDebugInfo();
    line("Block Count %d", ZebSelfCheck::blockCount());
    return failure("Hash Count is %d rather than 0", ZebDataHash::hashCount());
}

// Prints the progress of testThreadedIo().
void stage(int number)
{
    line("%d Hash Count %d   Ptr Count %d", number, ZebDataHash::hashCount(),
         ZebDataReference::referenceCount());
}

bool threadedIoWorks()
{
    constexpr int blocks = 10000;
    constexpr int blockBytes = 256 * 1024;
    ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    ZebThreadedIo io(blocks, blockBytes);
    stage(1);
    io.create();
    stage(2);
    manager.flush(true, ZebDataBlockManager::AllThreads);
    stage(3);
    manager.freeAllBlocks();
    stage(4);
    if (!io.restsOnDisk())
        return false;
    stage(5);
    io.mix();
    stage(6);
    io.clear();
    stage(7);
    return true;
}

void reportEntries(const QStringList& roots)
{
    for (const QString& root : roots) {
        const QStringList entries = QDir(root).entryList(QDir::AllEntries | QDir::Hidden |
                                                         QDir::System | QDir::NoDotAndDotDot);
        if (!entries.isEmpty())
            line("Cache %s Still has %d entries", qUtf8Printable(root), entries.size());
    }
}

} // namespace

bool TdxTester::testDataBlockManagerMultiThread(int megabytes)
{
    line("[ -- ] Starting Datablock Multithreaded Test");
    const QStringList roots = ZebSelfCheckStore::rootsIn(m_TestDataDirectory, s_Roots);
    line("Clearing Previous Caches");
    ZebSelfCheckStore store(roots, megabytes * s_BytesPerMiB, s_Buckets);
    // Kept on purpose: no later check of the run switches it off.
    m_Logging.store(true, std::memory_order_relaxed);
    ZebDataBlockManager::instance().startGarbageCollection();
    runRounds(megabytes);
    if (!blocksAreStoredOnce()) {
        ZebLiveReferences::clear();
        return false;
    }
    line("Clearing Refs");
    ZebLiveReferences::clear();
    line("Cleaning up");
    store.cleanUp();
    // Kept on purpose: blocks are not counted, so this line is always printed and fails nothing.
    line("Block Count is %d rather than 255", ZebSelfCheck::blockCount());
    line("Active Thread Count %d", QThreadPool::globalInstance()->activeThreadCount());
    if (!noHashIsLeft())
        return false;
    line("Clearing old caches");
    store.close();
    line("[ OK ] Passed Datablock Multithreaded Test");
    return true;
}

bool TdxTester::testThreadedIo()
{
    line("[ -- ] Starting Test Threaded IO ");
    constexpr qint64 memory = 100 * s_BytesPerMiB;
    const QStringList roots = ZebSelfCheckStore::rootsIn(m_TestDataDirectory, s_Roots);
    ZebSelfCheckStore store(roots, memory, s_Buckets);
    ZebDataBlockManager::instance().startGarbageCollection();
    stage(0);
    if (!threadedIoWorks())
        return false;
    stage(8);
    store.cleanUp();
    stage(9);
    if (ZebDataHash::hashCount() != 0) {
        return failure("Current Hash Count should be zero it is %d", ZebDataHash::hashCount());
    }
    stage(10);
    if (ZebSelfCheck::blockCount() != 0) {
        return failure("At End Preload Block count is not zero it is %d",
                       ZebSelfCheck::blockCount());
    }
    stage(11);
    line("Clearing Caches");
    store.close();
    reportEntries(roots);
    line("[ OK ] Passed Test Threaded IO ");
    return true;
}
