#include "io/ZebDataBlockReadThread.h"

#include "data/ZebDataBlock.h"
#include "io/ZebBlockFile.h"
#include "io/ZebBlockFilePath.h"
#include "support/ZebMutexLocker.h"
#include "support/ZebReadLocker.h"
#include "support/ZebStoredCall.h"
#include "support/ZebTdxMessage.h"
#include "support/ZebWriteLocker.h"

#include <QFile>
#include <QThreadPool>

#include <array>
#include <memory>
#include <new>
#include <utility>

namespace {

constexpr unsigned long s_IdleMs = 1000;
constexpr unsigned long s_QueuePollUs = 10;
constexpr qint64 s_PromotionsPerSort = 100;
constexpr int s_Attempts = 2;

} // namespace

ZebDataBlockReadThread::ZebDataBlockReadThread(const QString& root, int bucketCount,
                                               int maxLowPriorityRequests, QObject* parent)
    : QThread(parent),
      m_CacheRoot(root),
      m_Lock(QReadWriteLock::Recursive),
      m_Exit(false),
      m_BucketCount(bucketCount),
      m_MaxLowPriorityRequests(maxLowPriorityRequests),
      m_RequestsHandled(0),
      m_BytesRead(0),
      m_RequestPromotionEnabled(false),
      m_PromotionCount(0)
{}

ZebDataBlockReadThread::~ZebDataBlockReadThread() = default;

void ZebDataBlockReadThread::request(ZebDataHash* hash,
                                     ZebDataBlockManager::PreloadPriority priority)
{
    if (hash->isPreloading()) {
        if (requestPromotionEnabled())
            promote(hash);
        return;
    }
    // Outlives the lock below, so that no last reference is released inside it.
    const ZebSmartPointer<ZebDataHash> held(hash);
    {
        const ZebWriteLocker locker(&m_Lock);
        if (priority == ZebDataBlockManager::PreloadLow &&
            m_Requests.size() >= m_MaxLowPriorityRequests)
            return;
        m_Requests.insert(priority, held);
        hash->setPreloading(true);
    }
    m_WaitCondition.wakeAll();
}

void ZebDataBlockReadThread::promote(ZebDataHash* hash)
{
    // Every attempt counts, even without effect.
    const qint64 attempts = m_PromotionCount.fetch_add(1, std::memory_order_relaxed) + 1;
    {
        const ZebWriteLocker locker(&m_Lock);
        int index = 0;
        while (index < m_Requests.size() && m_Requests.valueAt(index).data() != hash)
            ++index;
        if (index == 0 || index == m_Requests.size())
            return;
        // Kept on purpose: the entry keeps its position, and its priority may become negative. Only
        // the rare sort restores the order.
        m_Requests.lowerPriorityAt(index);
        if (attempts % s_PromotionsPerSort == 0)
            m_Requests.sort();
    }
    m_WaitCondition.wakeAll();
}

void ZebDataBlockReadThread::run()
{
    for (;;) {
        {
            const ZebMutexLocker waitLocker(&m_WaitMutex);
            m_WaitCondition.wait(&m_WaitMutex, s_IdleMs);
        }
        ZebWriteLocker locker(&m_Lock);
        if (m_Exit) {
            locker.unlock();
            killRequests();
            return;
        }
        while (!m_Requests.isEmpty()) {
            ZebSmartPointer<ZebDataHash> hash = m_Requests.takeFirst();
            m_RequestsHandled.fetch_add(1, std::memory_order_relaxed);
            locker.unlock();
            if (!hash.isNull())
                loadBlock(hash, true);
            // Released without m_Lock: a last reference takes the delete lock, the outermost.
            hash = ZebSmartPointer<ZebDataHash>();
            locker.relock();
        }
    }
}

bool ZebDataBlockReadThread::readFile(QFile& file, qint64* size, QByteArray* data)
try {
    if (!file.open(QIODevice::ReadOnly))
        return false;
    std::array<char, ZebBlockFile::s_HeaderBytes> bytes = {};
    const bool hasHeader = file.read(bytes.data(), bytes.size()) == ZebBlockFile::s_HeaderBytes;
    const auto header = ZebBlockFile::Header::decode(bytes.data());
    // Checked against the file before allocating.
    bool complete = hasHeader && header.isPayloadWithin(file.bytesAvailable());
    if (complete) {
        QByteArray payload(header.m_PayloadBytes, Qt::Uninitialized);
        complete = file.read(payload.data(), header.m_PayloadBytes) == header.m_PayloadBytes;
        if (complete) {
            *size = header.m_BlockBytes;
            *data = payload;
        }
    }
    file.close();
    return complete;
} catch (const std::bad_alloc&) {
    // A failed read never ends the thread.
    file.close();
    return false;
}

QFuture<ZebDataBlock*> ZebDataBlockReadThread::loadBlock(const ZebSmartPointer<ZebDataHash>& hash,
                                                         bool makeLive)
{
    QFile file(ZebBlockFilePath(hash.data(), m_CacheRoot, subCache(), m_BucketCount));
    qint64 size = 0;
    QByteArray data;
    int attempt = 0;
    while (!readFile(file, &size, &data)) {
        // The block may be queued or half written; after the flush its file is complete.
        // Kept on purpose: flushes after the last attempt, too, so a failed load waits for the
        // writers twice.
        ZebDataBlockManager::instance().flushWrite(hash);
        if (++attempt == s_Attempts) {
            ZebTdxMessage::debug(
                QStringLiteral("Cannot read data from file '%1'").arg(file.fileName()));
            return QFuture<ZebDataBlock*>();
        }
    }
    QThreadPool* const pool = QThreadPool::globalInstance();
    // At process exit Qt may have destroyed the pool before the store.
    if (pool == nullptr)
        return QFuture<ZebDataBlock*>();
    m_BytesRead.fetch_add(size, std::memory_order_relaxed);
    return ZebStoredCall::start<ZebDataBlock*>(pool, [data, hash, makeLive, size] {
        return decompressAndMakeBlock(data, hash, makeLive, size);
    });
}

ZebDataBlock* ZebDataBlockReadThread::decompressAndMakeBlock(
    // NOLINTNEXTLINE(performance-unnecessary-value-param): the signature is fixed.
    QByteArray data, const ZebSmartPointer<ZebDataHash>& hash, bool makeLive, qint64 size)
{
    // Kept on purpose: the size in the header is not compared with the decompressed bytes, and a
    // damaged payload becomes an empty block.
    Q_UNUSED(size)
    QByteArray plain = ZebBlockFile::decodePayload(data);
    if (plain.isEmpty())
        ZebTdxMessage::debug(QStringLiteral("Failed to decompress block data."));
    // Moved, since a copy would take longer than reading the file.
    auto block = std::make_unique<ZebDataBlock>(QByteArray());
    block->m_Size = plain.size();
    block->m_Data = std::move(plain);
    block->m_Compressed = false;
    block->m_Cached.store(true, std::memory_order_relaxed);
    ZebDataBlock* const made = block.release();
    if (makeLive)
        ZebDataBlockManager::instance().makeBlockLive(hash.data(), made);
    hash->setPreloading(false);
    return made;
}

void ZebDataBlockReadThread::killRequests()
{
    ZebPriorityList<ZebSmartPointer<ZebDataHash>> killed;
    {
        const ZebWriteLocker locker(&m_Lock);
        // Released without m_Lock: a last reference takes the delete lock, the outermost.
        std::swap(killed, m_Requests);
    }
}

void ZebDataBlockReadThread::flush()
{
    m_WaitCondition.wakeAll();
    int waiting = 0;
    do {
        waiting = requests();
        QThread::usleep(s_QueuePollUs);
    } while (waiting != 0);
}

void ZebDataBlockReadThread::closeDown()
{
    flush();
    {
        const ZebWriteLocker locker(&m_Lock);
        m_Exit = true;
    }
    m_WaitCondition.wakeAll();
}

int ZebDataBlockReadThread::requests() const
{
    const ZebReadLocker locker(&m_Lock);
    return m_Requests.size();
}

int ZebDataBlockReadThread::requestsHandled() const
{
    return m_RequestsHandled.load(std::memory_order_relaxed);
}

qint64 ZebDataBlockReadThread::bytesRead() const
{
    return m_BytesRead.load(std::memory_order_relaxed);
}

void ZebDataBlockReadThread::setRequestPromotionEnabled(bool enabled)
{
    m_RequestPromotionEnabled.store(enabled, std::memory_order_relaxed);
}

bool ZebDataBlockReadThread::requestPromotionEnabled() const
{
    return m_RequestPromotionEnabled.load(std::memory_order_relaxed);
}

void ZebDataBlockReadThread::setSubCache(const QString& subCache)
{
    const ZebWriteLocker locker(&m_Lock);
    m_SubCache = subCache;
}

QString ZebDataBlockReadThread::subCache() const
{
    const ZebReadLocker locker(&m_Lock);
    return m_SubCache;
}
