// The sub-cache of the store: one name that all disk threads and the log share.

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
        // Kept on purpose: to standard output, past the message handler of the host.
        std::printf("%s\n",
                    QStringLiteral("Subcache Set to %1 twice").arg(name).toLocal8Bit().constData());
        std::fflush(stdout);
        return;
    }
    // What is under way ends under the old name. Waited for with no lock held, since a writer takes
    // the delete lock to finish a block.
    flush(false, AllThreads);
    const ZebTdxMutexLocker locker(&m_DeleteMutex);
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
    const ZebTdxMutexLocker locker(&m_DeleteMutex);
    return m_SubCache;
}

bool ZebDataBlockManager::subCacheExists(const QString& name) const
{
    if (m_CacheRoots.isEmpty())
        return false;
    return QDir().exists(m_CacheRoots.first() + QDir::separator() + name);
}
