#include "io/ZebDataBlockReadThread.h"

#include "data/ZebDataBlock.h"
#include "io/ZebBlockFile.h"
#include "io/ZebBlockFilePath.h"
#include "io/ZebFileReader.h"
#include "support/ZebMutexLocker.h"
#include "support/ZebStoredCall.h"
#include "support/ZebTdxMessage.h"
#include "support/ZebWriteLocker.h"

#include <QFile>
#include <QRunnable>
#include <QScopeGuard>
#include <QThreadPool>

#include <memory>
#include <new>
#include <utility>

namespace {

constexpr unsigned long s_IdleMs = 1000;
constexpr unsigned long s_QueuePollUs = 10;
constexpr qint64 s_PromotionsPerSort = 100;
constexpr int s_Attempts = 2;

} // namespace

// Decompresses what a load has read. It is a class of its own, and no stored call, since a failed
// allocation must neither lose the block nor leave the future unfinished.
class ZebDataBlockReadThread::LoadTask final : public QRunnable
{
public:
    LoadTask(const QByteArray& data, const ZebSmartPointer<ZebDataHash>& hash, bool makeLive,
             qint64 size)
        : m_Data(data), m_Hash(hash), m_MakeLive(makeLive), m_Size(size), m_Promise(std::in_place)
    {}

    QFuture<ZebDataBlock*> begin(QThreadPool* pool)
    {
        return ZebStoredCall::begin(m_Promise, pool, this);
    }

    void run() override
    {
        try {
            load();
        } catch (const std::bad_alloc&) {
            loadRanOutOfMemory(m_Hash);
            m_Promise->cancel();
        }
        ZebStoredCall::end(m_Promise, [this] {
            m_Data = QByteArray();
            m_Hash = ZebSmartPointer<ZebDataHash>();
        });
    }

private:
    void load()
    {
        if (m_Promise->isCanceled())
            return;
        ZebDataBlock* const made = decompressAndMakeBlock(m_Data, m_Hash, m_MakeLive, m_Size);
        // The manager has taken over a block that it was given.
        std::unique_ptr<ZebDataBlock> owned(m_MakeLive ? nullptr : made);
        // Storing the result may fail before the future has it, and also afterwards.
        const auto handOver = qScopeGuard([&] {
            if (m_Promise->resultCount() != 0)
                static_cast<void>(owned.release());
        });
        m_Promise->reportResult(made);
    }

    QByteArray m_Data;
    ZebSmartPointer<ZebDataHash> m_Hash;
    const bool m_MakeLive;
    const qint64 m_Size;
    ZebStoredCall::Promise<ZebDataBlock*> m_Promise;
};

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
    wake();
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
    wake();
}

void ZebDataBlockReadThread::wake()
{
    {
        const ZebMutexLocker waitLocker(&m_WaitMutex);
        m_WakeIsPending = true;
    }
    m_WaitCondition.wakeAll();
}

void ZebDataBlockReadThread::run()
{
    for (;;) {
        {
            const ZebMutexLocker waitLocker(&m_WaitMutex);
            if (!m_WakeIsPending)
                m_WaitCondition.wait(&m_WaitMutex, s_IdleMs);
            // Before the list is looked at, so a later wake-up counts for the next wait.
            m_WakeIsPending = false;
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

bool ZebDataBlockReadThread::readFile(const std::string& path, qint64* size, QByteArray* data)
{
    ZebFileReader file;
    // Only a regular file is a block: another kind could block this thread, and a link lead out of
    // the root.
    if (file.open(path, ZebFileReader::Links::Refuse) != 0)
        return false;
    QByteArray bytes;
    if (file.readBlock(0, ZebBlockFile::s_HeaderBytes, bytes) != 0 ||
        bytes.size() != ZebBlockFile::s_HeaderBytes)
        return false;
    const auto header = ZebBlockFile::Header::decode(bytes.constData());
    // Checked against the file before allocating.
    if (!header.isPayloadWithin(file.stamp().m_Size - ZebBlockFile::s_HeaderBytes))
        return false;
    QByteArray payload;
    if (file.readBlock(ZebBlockFile::s_HeaderBytes, header.m_PayloadBytes, payload) != 0 ||
        payload.size() != header.m_PayloadBytes)
        return false;
    *size = header.m_BlockBytes;
    *data = payload;
    return true;
}

QFuture<ZebDataBlock*> ZebDataBlockReadThread::loadBlock(const ZebSmartPointer<ZebDataHash>& hash,
                                                         bool makeLive)
try {
    return startLoad(hash, makeLive);
} catch (const std::bad_alloc&) {
    loadRanOutOfMemory(hash);
    return m_NoBlock;
}

QFuture<ZebDataBlock*> ZebDataBlockReadThread::startLoad(const ZebSmartPointer<ZebDataHash>& hash,
                                                         bool makeLive)
{
    const QString path = ZebBlockFilePath(hash.data(), m_CacheRoot, subCache(), m_BucketCount);
    const std::string encodedPath = QFile::encodeName(path).toStdString();
    qint64 size = 0;
    QByteArray data;
    bool wasMemoryShort = false;
    const auto attemptFails = [&] {
        wasMemoryShort = false;
        try {
            return !readFile(encodedPath, &size, &data);
        } catch (const std::bad_alloc&) {
            wasMemoryShort = true;
            return true;
        }
    };
    int attempt = 0;
    while (attemptFails()) {
        // The block may be queued or half written; after the flush its file is complete.
        // Kept on purpose: flushes after the last attempt, too, so a failed load waits for the
        // writers twice.
        ZebDataBlockManager::instance().flushWrite(hash);
        if (++attempt == s_Attempts) {
            if (wasMemoryShort)
                hash->setPreloading(false);
            ZebTdxMessage::debug(QStringLiteral("Cannot read data from file '%1'").arg(path));
            return m_NoBlock;
        }
    }
    QThreadPool* const pool = QThreadPool::globalInstance();
    // At process exit Qt may have destroyed the pool before the store.
    if (pool == nullptr)
        return m_NoBlock;
    auto task = std::make_unique<LoadTask>(data, hash, makeLive, size);
    QFuture<ZebDataBlock*> future = task->begin(pool);
    m_BytesRead.fetch_add(size, std::memory_order_relaxed);
    pool->start(task.get(), 0);
    // Only now the pool has it for certain, and may have deleted it already.
    static_cast<void>(task.release());
    return future;
}

void ZebDataBlockReadThread::loadRanOutOfMemory(const ZebSmartPointer<ZebDataHash>& hash) noexcept
{
    hash->setPreloading(false);
    try {
        ZebTdxMessage::debug(QStringLiteral("Out of memory while loading a block"));
    } catch (const std::bad_alloc&) {
        // Without memory there is no message either.
    }
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
    wake();
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
    wake();
}

int ZebDataBlockReadThread::requests() const
{
    const ZebWriteLocker locker(&m_Lock);
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
    const ZebWriteLocker locker(&m_Lock);
    return m_SubCache;
}
