// Diagnostics: figures as debug lines, and references to every interned hash.

#include "manager/ZebDataBlockManager.h"

#include "data/ZebDataBlock.h"
#include "data/ZebDataReference.h"
#include "hash/ZebHashManager.h"
#include "io/ZebDataBlockReadThread.h"
#include "io/ZebDataBlockWriteThread.h"
#include "manager/ZebClosedGate.h"
#include "support/ZebByteUnits.h"
#include "support/ZebTdxMessage.h"

namespace {

// Kept on purpose: references to jobs are not counted; hosts may expect the line all the same.
constexpr int s_BlockFuturePointers = -1;

QString megabytes(qint64 bytes)
{
    return QStringLiteral("%1Mb").arg(bytes / ZebByteUnits::s_BytesPerMiB);
}

void printCount(const char* words, qint64 count)
{
    ZebTdxMessage::debug(QLatin1String(words) + QString::number(count));
}

void printRequests(const char* format, int index, int requests)
{
    ZebTdxMessage::debug(QString::asprintf(format, index, requests));
}

} // namespace

qint64 ZebDataBlockManager::liveBlocks() const
{
    return m_Lru.count();
}

qint64 ZebDataBlockManager::liveBytes() const
{
    return m_LiveBytes.load(std::memory_order_relaxed);
}

qint64 ZebDataBlockManager::managedBlocks() const
{
    return ZebHashManager::instance().hashCount();
}

void ZebDataBlockManager::dumpStats()
{
    const ZebTdxMutexLocker locker(&deleteMutex());
    // So that the figures agree with each other.
    const ZebClosedGate gate(&m_GateDepth);
    // Kept on purpose: "existant", since hosts may parse these lines.
    ZebTdxMessage::debug(QStringLiteral("==== ZebTdx Block Stats ===="));
    ZebTdxMessage::debug(QStringLiteral("Max Cache Size ") + megabytes(maxDataCacheSize()));
    printCount("Number of managed blocks ", m_Lru.residentCount());
    printCount("Number of existant blocks ", ZebDataBlock::blockCount());
    ZebTdxMessage::debug(QStringLiteral("Block Memory Usage ") + megabytes(liveBytes()));
    printCount("Number of LRU Blocks ", m_Lru.count());
    printCount("Number Block Future Pointers ", s_BlockFuturePointers);
    ZebHashManager::instance().dumpStats();
    ZebTdxMessage::debug(QStringLiteral("==== Thread Stats ===="));
    for (int i = 0; i < m_ReadThreads.size(); ++i) {
        ZebTdxMessage::debug(
            QStringLiteral("Read %1 %2")
                .arg(m_CacheRoots.at(i), megabytes(m_ReadThreads.at(i)->bytesRead())));
    }
    for (int i = 0; i < m_WriteThreads.size(); ++i) {
        // Kept on purpose: the two blanks, since hosts may parse these lines.
        ZebTdxMessage::debug(
            QStringLiteral("Written  %1 %2")
                .arg(m_CacheRoots.at(i), megabytes(m_WriteThreads.at(i)->bytesWritten())));
    }
}

void ZebDataBlockManager::dumpThreadStats()
{
    ZebTdxMessage::debug(QStringLiteral("==== Thread Stats ===="));
    for (int i = 0; i < m_ReadThreads.size(); ++i)
        printRequests(" Read Thread %d has %d requests", i, m_ReadThreads.at(i)->requests());
    for (int i = 0; i < m_WriteThreads.size(); ++i)
        printRequests(" Write Thread %d has %d requests", i, m_WriteThreads.at(i)->requests());
}

void ZebDataBlockManager::snapshot(QList<ZebDataReference>& references) const
{
    const ZebTdxMutexLocker locker(&deleteMutex());
    requireInitialized();
    // Destroyed with the delete lock held: after an exception each may be the last reference.
    QList<ZebSmartPointer<ZebDataHash>> hashes;
    ZebHashManager::instance().snapshot(hashes);
    for (const ZebSmartPointer<ZebDataHash>& hash : qAsConst(hashes))
        references.append(ZebDataReference(hash));
}

void ZebDataBlockManager::validateState()
{
    ZebHashManager::instance().validateState();
}
