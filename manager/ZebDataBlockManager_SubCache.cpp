// The sub-cache: one name for the store, all disk threads and the log.

#include "manager/ZebDataBlockManager.h"

#include "io/ZebDataBlockReadThread.h"
#include "io/ZebDataBlockWriteThread.h"
#include "io/ZebGarbageCollectorThread.h"
#include "support/ZebTdxLog.h"

#include <QDir>

#include <cstdio>

void ZebDataBlockManager::setSubCache(const QString& name)
{
    if (garbageCollecting())
        return;
    if (name == subCache()) {
        // Kept on purpose: prints to standard output, bypassing the host's message handler.
        std::printf("%s\n",
                    QStringLiteral("Subcache Set to %1 twice").arg(name).toLocal8Bit().constData());
        std::fflush(stdout);
        return;
    }
    // Work in progress completes under the old name. No lock held: a writer takes the delete lock
    // to finish a block.
    flush(false, AllThreads);
    const ZebTdxMutexLocker locker(&deleteMutex());
    // The collection may have been enabled meanwhile, and a pass may be removing files by the
    // present name. From here on it stays disabled: enabling it takes the delete lock.
    if (garbageCollecting())
        return;
    // First, since it allocates: a failure changes no name.
    ZebTdxLog::instance().setSubCache(m_CacheRoots.value(0) + QDir::separator() + name);
    m_SubCache = name;
    // A pass that has read the old name compares this once the collection is enabled again. What
    // enables it takes the delete lock, so the pass sees the change.
    m_SubCacheGeneration.fetch_add(1, std::memory_order_relaxed);
    for (ZebDataBlockReadThread* const reader : qAsConst(m_ReadThreads))
        reader->setSubCache(name);
    for (ZebDataBlockWriteThread* const writer : qAsConst(m_WriteThreads))
        writer->setSubCache(name);
    for (ZebGarbageCollectorThread* const collector : qAsConst(m_GarbageCollectors))
        collector->setSubCache(name);
}

QString ZebDataBlockManager::subCache() const
{
    const ZebTdxMutexLocker locker(&deleteMutex());
    return m_SubCache;
}

bool ZebDataBlockManager::subCacheExists(const QString& name) const
{
    if (m_CacheRoots.isEmpty())
        return false;
    return QDir().exists(m_CacheRoots.first() + QDir::separator() + name);
}
