#include "selfcheck/ZebLiveReferences.h"

#include "manager/ZebDataBlockManager.h"
#include "selfcheck/ZebSharedRandom.h"
#include "support/ZebDataDeleteLocker.h"

#include <QByteArray>
#include <QFuture>
#include <QMutexLocker>
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

// Neither the collector nor a check that counts files may find writes still queued. The wait is
// part of the work, so no wait follows it.
void settle()
{
    ZebDataBlockManager::instance().flush(false, ZebDataBlockManager::WriteThreads);
}

void createAndSettle()
{
    ZebLiveReferences::create();
    settle();
}

void modifyAndSettle()
{
    ZebLiveReferences::modify();
    settle();
}

} // namespace

QMutex ZebLiveReferences::m_Mutex;
QHash<ZebDataReference, bool> ZebLiveReferences::m_References;
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

void ZebLiveReferences::remove()
{
    for (int step = 0; step < m_Iterations; ++step) {
        // Keeps the last reference until the mutex is released.
        const ZebDataReference reference = pick();
        const QMutexLocker locker(&m_Mutex);
        m_References.remove(reference);
    }
}

void ZebLiveReferences::runAll()
{
    // The remover starts first: in a small pool it could otherwise run last, when no worker adds
    // blocks again, and the collector would need another pass.
    QList<QFuture<void>> workers;
    workers.append(QtConcurrent::run(&ZebLiveReferences::remove));
    workers.append(QtConcurrent::run(&createAndSettle));
    workers.append(QtConcurrent::run(&createAndSettle));
    workers.append(QtConcurrent::run(&ZebLiveReferences::read));
    workers.append(QtConcurrent::run(&ZebLiveReferences::read));
    workers.append(QtConcurrent::run(&modifyAndSettle));
    for (QFuture<void>& worker : workers)
        worker.waitForFinished();
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
    const QMutexLocker locker(&m_Mutex);
    m_References.insert(reference, true);
}

ZebDataReference ZebLiveReferences::pick()
{
    const QMutexLocker locker(&m_Mutex);
    if (m_References.isEmpty())
        return ZebDataReference();
    const int place = ZebSharedRandom::below(m_References.size());
    return std::next(m_References.constBegin(), place).key();
}

ZebDataReference ZebLiveReferences::pickAt(int place)
{
    const QMutexLocker locker(&m_Mutex);
    if (m_References.isEmpty())
        return ZebDataReference();
    return std::next(m_References.constBegin(), place % m_References.size()).key();
}
