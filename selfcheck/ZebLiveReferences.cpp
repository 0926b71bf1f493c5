#include "selfcheck/ZebLiveReferences.h"

#include "manager/ZebDataBlockManager.h"
#include "selfcheck/ZebReleasedPoolThread.h"
#include "selfcheck/ZebSharedRandom.h"
#include "support/ZebDataDeleteLocker.h"

#include <QByteArray>
#include <QFuture>
#include <QMutexLocker>
#include <QScopeGuard>
#include <QtConcurrent>

#include <cstring>
#include <iterator>
#include <numeric>

namespace {

constexpr int s_BlockBytes = 256 * 1024;
constexpr int s_DistinctBytes = 255;

int fillByte(int step)
{
    return step % s_DistinctBytes;
}

} // namespace

QMutex ZebLiveReferences::m_Mutex;
QHash<ZebDataReference, bool> ZebLiveReferences::m_References;
int ZebLiveReferences::m_Creators = 0;
QWaitCondition ZebLiveReferences::m_Changed;
std::atomic<qint64> ZebLiveReferences::m_BytesProcessed{0};
std::atomic<qint64> ZebLiveReferences::m_BytesSummed{0};
int ZebLiveReferences::m_Iterations = 256;

void ZebLiveReferences::create()
{
    ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    for (int step = 0; step < m_Iterations; ++step) {
        const QByteArray bytes(s_BlockBytes, static_cast<char>(fillByte(step)));
        insert(manager.addBlock(bytes, ZebModifyAccessor::Cached, false));
        m_BytesProcessed.fetch_add(bytes.size(), std::memory_order_relaxed);
    }
}

void ZebLiveReferences::expectCreators(int count)
{
    const QMutexLocker locker(&m_Mutex);
    m_Creators += count;
}

QFuture<void> ZebLiveReferences::startCreator()
{
    return QtConcurrent::run([] {
        const auto end = qScopeGuard(&ZebLiveReferences::endCreator);
        create();
    });
}

void ZebLiveReferences::endCreator()
{
    {
        const QMutexLocker locker(&m_Mutex);
        --m_Creators;
    }
    m_Changed.wakeAll();
}

void ZebLiveReferences::read()
{
    for (int step = 0; step < m_Iterations; ++step) {
        const ZebDataReference reference = pick();
        if (reference.isNull())
            continue;
        const ZebConstAccessor accessor = reference.constAccessor();
        if (accessor.isNull())
            continue;
        const unsigned char* const data = accessor.data();
        const qint64 sum = std::accumulate(data, data + accessor.size(), qint64(0));
        m_BytesSummed.fetch_add(sum, std::memory_order_relaxed);
        m_BytesProcessed.fetch_add(accessor.size(), std::memory_order_relaxed);
    }
}

void ZebLiveReferences::modify()
{
    for (int step = 0; step < m_Iterations; ++step) {
        const ZebDataReference reference = pickAt(step);
        if (reference.isNull())
            continue;
        ZebModifyAccessor accessor = reference.modifyAccessor();
        if (!accessor.isNull()) {
            std::memset(accessor.data(), fillByte(step), static_cast<size_t>(accessor.size()));
            m_BytesProcessed.fetch_add(accessor.size(), std::memory_order_relaxed);
        }
        // A block that could not be loaded gives a null reference, and the check finds a block
        // missing.
        insert(accessor.release(ZebModifyAccessor::Cached, false));
    }
}

int ZebLiveReferences::remove()
{
    int removed = 0;
    for (int step = 0; step < m_Iterations; ++step) {
        // A last reference dies here, without the mutex.
        if (!take().isNull())
            ++removed;
    }
    return removed;
}

int ZebLiveReferences::runAll()
{
    expectCreators(2);
    // First, or in a small pool it would run after the creators.
    QFuture<int> remover = QtConcurrent::run(&ZebLiveReferences::remove);
    QList<QFuture<void>> workers;
    workers.append(startCreator());
    workers.append(startCreator());
    workers.append(QtConcurrent::run(&ZebLiveReferences::read));
    workers.append(QtConcurrent::run(&ZebLiveReferences::read));
    // The modifier adds every block once more. When it starts after the last removal, all blocks
    // are live in the end, and no file waits for the next pass of the collector.
    remover.waitForFinished();
    workers.append(QtConcurrent::run(&ZebLiveReferences::modify));
    for (QFuture<void>& worker : workers)
        worker.waitForFinished();
    // The workers add blocks faster than the writers write them. A block in a queue has no file,
    // and keeps its hash when its references are dropped.
    ZebDataBlockManager::instance().flush(false, ZebDataBlockManager::WriteThreads);
    return remover.result();
}

void ZebLiveReferences::clear()
{
    QHash<ZebDataReference, bool> references;
    {
        const QMutexLocker locker(&m_Mutex);
        references.swap(m_References);
    }
    const ZebDataDeleteLocker deleteLocker;
    references.clear();
}

int ZebLiveReferences::count()
{
    const QMutexLocker locker(&m_Mutex);
    return m_References.size();
}

QList<ZebDataReference> ZebLiveReferences::snapshot()
{
    const QMutexLocker locker(&m_Mutex);
    return m_References.keys();
}

qint64 ZebLiveReferences::bytesProcessed()
{
    return m_BytesProcessed.load(std::memory_order_relaxed);
}

qint64 ZebLiveReferences::bytesSummed()
{
    return m_BytesSummed.load(std::memory_order_relaxed);
}

void ZebLiveReferences::resetCounters()
{
    m_BytesProcessed.store(0, std::memory_order_relaxed);
    m_BytesSummed.store(0, std::memory_order_relaxed);
}

void ZebLiveReferences::insert(const ZebDataReference& reference)
{
    reference.resolveWork();
    {
        const QMutexLocker locker(&m_Mutex);
        m_References.insert(reference, true);
    }
    m_Changed.wakeAll();
}

bool ZebLiveReferences::hasEntries(int count)
{
    if (m_References.size() < count && m_Creators > 0) {
        const ZebReleasedPoolThread released;
        while (m_References.size() < count && m_Creators > 0)
            m_Changed.wait(&m_Mutex);
    }
    return m_References.size() >= count;
}

ZebDataReference ZebLiveReferences::entryAt(int place)
{
    return std::next(m_References.constBegin(), place).key();
}

ZebDataReference ZebLiveReferences::pick()
{
    const QMutexLocker locker(&m_Mutex);
    return hasEntries(1) ? entryAt(ZebSharedRandom::below(m_References.size()))
                         : ZebDataReference();
}

ZebDataReference ZebLiveReferences::pickAt(int place)
{
    const QMutexLocker locker(&m_Mutex);
    return hasEntries(1) ? entryAt(place % m_References.size()) : ZebDataReference();
}

ZebDataReference ZebLiveReferences::take()
{
    const QMutexLocker locker(&m_Mutex);
    // The last entry stays, or the other workers would find an empty map after the creators.
    if (!hasEntries(2))
        return ZebDataReference();
    const ZebDataReference reference = entryAt(ZebSharedRandom::below(m_References.size()));
    m_References.remove(reference);
    return reference;
}
