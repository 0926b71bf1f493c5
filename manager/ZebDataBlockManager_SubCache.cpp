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
    m_SubCache = name;
    ZebTdxLog::instance().setSubCache(m_CacheRoots.value(0) + QDir::separator() + name);
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
