#include "io/ZebGarbageCollectorThread.h"

#include "hash/ZebHashRemoval.h"
#include "hash/ZebHashText.h"
#include "io/ZebDirectory.h"
#include "support/ZebMutexLocker.h"
#include "support/ZebRegularFile.h"
#include "support/ZebWriteLocker.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QScopeGuard>

#include <algorithm>
#include <new>
#include <utility>

namespace {

constexpr unsigned long s_PollUs = 100000;
constexpr qint64 s_PassIntervalMs = 60000;
constexpr qint64 s_NoPassYet = -1;

// Whether a file of this name may be a block file. A name that Qt cannot decode is none.
bool isBlockFile(const QByteArray& name)
{
    const QString text = QFile::decodeName(name);
    return ZebHashText::isBlockFileName(text) && QFile::encodeName(text) == name;
}

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
    bool isReportDue = false;
    while (!m_Exit.load(std::memory_order_relaxed)) {
        const qint64 sizeBefore = m_CacheSize.load(std::memory_order_relaxed);
        try {
            collect(nullptr, nullptr);
        } catch (const std::bad_alloc&) {
            // A pass never fails; its lists grow with the tree.
        }
        const qint64 size = m_CacheSize.load(std::memory_order_relaxed);
        isReportDue = isReportDue || size != sizeBefore;
        try {
            if (isReportDue)
                ZebDataBlockManager::instance().cacheSizeRecord(this, size);
            isReportDue = false;
        } catch (const std::bad_alloc&) {
            // The next poll reports the size.
        }
        QThread::usleep(s_PollUs);
    }
}

void ZebGarbageCollectorThread::collect(ZebDataBlockManager::ProgressReporter* reporter, int* count)
{
    {
        // Waits for a change of the sub-cache in progress, and holds nothing afterwards.
        const ZebWriteLocker waiting(&m_Lock);
    }
    ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    QString subCache;
    quint64 generation = 0;
    {
        // Precedes the bracket, in which this lock must not be waited for.
        const ZebTdxMutexLocker locker(&manager.deleteMutex());
        subCache = manager.m_SubCache;
        generation = manager.m_SubCacheGeneration.load(std::memory_order_relaxed);
    }
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
    // The name may have changed before the collection was enabled, and cannot change inside the
    // bracket. A skipped pass does not close the gate: the next one uses the new name.
    if (manager.m_SubCacheGeneration.load(std::memory_order_relaxed) != generation) {
        manager.garbageCollectingThreadFinished();
        return;
    }
    const auto end = qScopeGuard([this] { endPass(); });
    // A trailing separator, since the root itself may be a link.
    const ZebDirectory root(QFile::encodeName(m_CacheRoot + QDir::separator()).toStdString());
    const ZebDirectory directory = root.below(QFile::encodeName(subCache).toStdString());
    const std::vector<Visited> visited = walk(directory, reporter, count);
    if (manager.garbageCollecting())
        sweep(directory, visited);
}

bool ZebGarbageCollectorThread::isGateClosed() const
{
    if (m_LastBlocksFreedCount.load(std::memory_order_relaxed) !=
        ZebDataBlockManager::instance().m_BlocksFreedCount.load(std::memory_order_relaxed))
        return false;
    const ZebMutexLocker locker(&m_PassTimerMutex);
    return m_PassTimer.isValid() && m_PassTimer.elapsed() < s_PassIntervalMs;
}

std::vector<ZebGarbageCollectorThread::Visited>
ZebGarbageCollectorThread::walk(const ZebDirectory& subCache,
                                ZebDataBlockManager::ProgressReporter* reporter, int* count)
{
    const ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    std::vector<Visited> visited(1);
    for (std::size_t index = 0; index < visited.size() && manager.garbageCollecting(); ++index) {
        if (reporter != nullptr && count != nullptr)
            reporter->update(++*count, QStringLiteral(""));
        visit(subCache.below(visited[index].m_Path), index, &visited);
    }
    return visited;
}

void ZebGarbageCollectorThread::visit(const ZebDirectory& directory, std::size_t index,
                                      std::vector<Visited>* visited)
{
    const std::string path = (*visited)[index].m_Path + "/";
    std::string names;
    // In the order of the directory, which needs no memory beyond the names.
    directory.forEach([&](const char* name, ZebDirectory::Kind kind) {
        // Kept on purpose: hidden entries stay, whatever their names.
        if (*name == '.')
            return;
        if (kind == ZebDirectory::Kind::Directory)
            visited->push_back({path + name, {}});
        else if (kind == ZebDirectory::Kind::File && isBlockFile(name))
            names.append(name).push_back('\0');
    });
    (*visited)[index].m_FileNames = std::move(names);
}

void ZebGarbageCollectorThread::sweep(const ZebDirectory& subCache,
                                      const std::vector<Visited>& visited)
{
    m_CacheSize.store(0, std::memory_order_relaxed);
    for (const Visited& found : visited) {
        if (found.m_FileNames.empty())
            continue;
        // Opened again: a walk may visit more directories than a process can have open.
        const ZebDirectory directory = subCache.below(found.m_Path);
        std::size_t begin = 0;
        while (begin < found.m_FileNames.size()) {
            const std::string name = found.m_FileNames.c_str() + begin;
            if (!sweepFile(directory, name))
                return;
            begin += name.size() + 1;
        }
    }
}

bool ZebGarbageCollectorThread::sweepFile(const ZebDirectory& directory, const std::string& name)
{
    // Decided just before the removal, so a reference taken since the walk keeps the file. A
    // queued request, a read or a write in progress holds one.
    const ZebHashRemoval removal(QFile::decodeName(name.c_str()));
    if (removal.isHashLive()) {
        m_CacheSize.fetch_add(std::max<qint64>(directory.fileSize(name), 0),
                              std::memory_order_relaxed);
        return true;
    }
    if (!ZebDataBlockManager::instance().garbageCollecting())
        return false;
    directory.removeFile(name);
    return true;
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
    ZebRegularFile::remove(QFile::encodeName(path));
}

void ZebGarbageCollectorThread::closeDown()
{
    // Kept on purpose: waits for setSubCache() only, as a reader, although this writes. Both fields
    // are atomic. The read lock is the second choice, since it allocates.
    if (!m_Lock.tryLockForWrite())
        m_Lock.lockForRead();
    m_Exit.store(true, std::memory_order_relaxed);
    m_CacheSize.store(0, std::memory_order_relaxed);
    m_Lock.unlock();
}

void ZebGarbageCollectorThread::setSubCache(const QString& subCache)
{
    const ZebWriteLocker locker(&m_Lock);
    m_SubCache = subCache;
}

QString ZebGarbageCollectorThread::subCache() const
{
    const ZebWriteLocker locker(&m_Lock);
    return m_SubCache;
}
