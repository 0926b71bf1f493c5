#include "io/ZebGarbageCollectorThread.h"

#include "hash/ZebHashManager.h"
#include "hash/ZebHashText.h"
#include "support/ZebMutexLocker.h"
#include "support/ZebReadLocker.h"
#include "support/ZebWriteLocker.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QScopeGuard>

#include <new>

namespace {

constexpr unsigned long s_PollUs = 100000;
constexpr qint64 s_PassIntervalMs = 60000;
constexpr qint64 s_NoPassYet = -1;

} // namespace

ZebGarbageCollectorThread::ZebGarbageCollectorThread(const QString& root, int bucketCount,
                                                     QObject* parent)
    : QThread(parent),
      m_CacheRoot(root),
      m_Lock(QReadWriteLock::Recursive),
      m_BucketCount(bucketCount),
      m_LastBlocksFreedCount(s_NoPassYet),
      m_Exit(false),
      m_CacheSize(0)
{}

ZebGarbageCollectorThread::~ZebGarbageCollectorThread() = default;

void ZebGarbageCollectorThread::run()
{
    while (!m_Exit.load(std::memory_order_relaxed)) {
        const qint64 sizeBefore = m_CacheSize.load(std::memory_order_relaxed);
        try {
            collect(nullptr, nullptr);
        } catch (const std::bad_alloc&) {
            // A pass never fails; its lists grow with the tree.
        }
        const qint64 size = m_CacheSize.load(std::memory_order_relaxed);
        if (size != sizeBefore)
            ZebDataBlockManager::instance().cacheSizeRecord(this, size);
        QThread::usleep(s_PollUs);
    }
}

void ZebGarbageCollectorThread::collect(ZebDataBlockManager::ProgressReporter* reporter, int* count)
{
    // Waits for a change of the sub-cache in progress, and holds nothing afterwards.
    m_Lock.lockForRead();
    m_Lock.unlock();
    ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    // Takes the delete lock, so it must precede the bracket. The name cannot change while the
    // collection is enabled.
    const QString subCache = manager.subCache();
    if (subCache.isEmpty()) {
        m_CacheSize.store(0, std::memory_order_relaxed);
        return;
    }
    if (isGateClosed())
        return;
    if (!manager.garbageCollectingThreadStarted()) {
        // Kept on purpose: a pass that is due while the collection is disabled counts 0 bytes,
        // whatever files exist.
        m_CacheSize.store(0, std::memory_order_relaxed);
        return;
    }
    const auto end = qScopeGuard([this] { endPass(); });
    const QStringList files =
        findBlockFiles(m_CacheRoot + QDir::separator() + subCache, reporter, count);
    if (manager.garbageCollecting())
        sweep(files);
}

bool ZebGarbageCollectorThread::isGateClosed() const
{
    if (m_LastBlocksFreedCount.load(std::memory_order_relaxed) !=
        ZebDataBlockManager::instance().m_BlocksFreedCount.load(std::memory_order_relaxed))
        return false;
    const ZebMutexLocker locker(&m_PassTimerMutex);
    return m_PassTimer.isValid() && m_PassTimer.elapsed() < s_PassIntervalMs;
}

QStringList ZebGarbageCollectorThread::findBlockFiles(
    const QString& directory, ZebDataBlockManager::ProgressReporter* reporter, int* count)
{
    const ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    QStringList directories(directory);
    QStringList files;
    while (!directories.isEmpty() && manager.garbageCollecting()) {
        if (reporter != nullptr && count != nullptr)
            reporter->update(++*count, QStringLiteral(""));
        const QFileInfoList entries =
            QDir(directories.takeFirst())
                .entryInfoList(QDir::Dirs | QDir::Files | QDir::Drives | QDir::NoDotAndDotDot,
                               QDir::NoSort);
        for (const QFileInfo& entry : entries) {
            if (entry.isFile() && ZebHashText::isBlockFileName(entry.fileName()))
                files.append(entry.absoluteFilePath());
            else if (entry.isDir())
                directories.append(entry.absoluteFilePath());
        }
    }
    return files;
}

void ZebGarbageCollectorThread::sweep(const QStringList& files)
{
    const ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    const ZebHashManager& registry = ZebHashManager::instance();
    m_CacheSize.store(0, std::memory_order_relaxed);
    for (const QString& path : files) {
        const QFileInfo file(path);
        // Checked just before the removal, so a reference taken since the walk keeps the file. A
        // queued request, a read or a write in progress holds one.
        if (registry.isHashLive(file.fileName())) {
            m_CacheSize.fetch_add(file.size(), std::memory_order_relaxed);
            continue;
        }
        if (!manager.garbageCollecting())
            return;
        deleteBlock(path);
    }
}

void ZebGarbageCollectorThread::endPass()
{
    ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    // Kept on purpose: read at the end, so a block freed during the pass does not open the gate.
    // Its file may stay until another block is freed, or for a minute.
    m_LastBlocksFreedCount.store(manager.m_BlocksFreedCount.load(std::memory_order_relaxed),
                                 std::memory_order_relaxed);
    {
        const ZebMutexLocker locker(&m_PassTimerMutex);
        m_PassTimer.start();
    }
    manager.garbageCollectingThreadFinished();
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static): the interface is fixed.
void ZebGarbageCollectorThread::deleteBlock(const QString& path)
{
    QFile file(path);
    if (file.exists())
        file.remove();
}

void ZebGarbageCollectorThread::closeDown()
{
    // Kept on purpose: a read lock although this writes, so it only waits for setSubCache(). Both
    // fields are atomic.
    const ZebReadLocker locker(&m_Lock);
    m_Exit.store(true, std::memory_order_relaxed);
    m_CacheSize.store(0, std::memory_order_relaxed);
}

void ZebGarbageCollectorThread::setSubCache(const QString& subCache)
{
    const ZebWriteLocker locker(&m_Lock);
    m_SubCache = subCache;
}

QString ZebGarbageCollectorThread::subCache() const
{
    const ZebReadLocker locker(&m_Lock);
    return m_SubCache;
}
