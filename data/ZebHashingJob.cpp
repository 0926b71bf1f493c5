#include "data/ZebHashingJob.h"

#include "data/ZebDataBlock.h"
#include "data/ZebHashingTask.h"
#include "data/ZebThreadPoolManager.h"
#include "hash/ZebDigestView.h"
#include "hash/ZebHashManager.h"
#include "manager/ZebDataBlockManager.h"
#include "support/ZebForkWatch.h"
#include "support/ZebMutexLocker.h"
#include "support/ZebTdxMessage.h"

#include <memory>
#include <utility>

QAtomicInt ZebHashingJob::m_LiveHashJobCount;
QAtomicInt ZebHashingJob::m_UnfinishedHashJobCount;

namespace {

QThreadPool* hashingPool()
{
    return ZebThreadPoolManager::instance().threadPool(ZebThreadPoolManager::HashingThreadPool);
}

void reportLostBlock() noexcept
{
    try {
        ZebTdxMessage::debug(QStringLiteral("[TDX] A block was lost: out of memory"));
    } catch (...) {
        // There is no memory for the message either.
        return;
    }
}

} // namespace

ZebHashingJob::ZebHashingJob(const QByteArray& bytes)
{
    ZebHashingTask::Started started = ZebHashingTask::start(hashingPool(), bytes);
    m_Task.swap(started.m_Task);
    m_Future = started.m_Future;
}

ZebHashingJob::ZebHashingJob(ZebDataBlock* block)
    : ZebHashingJob(std::unique_ptr<ZebDataBlock>(block))
{}

ZebHashingJob::ZebHashingJob(std::unique_ptr<ZebDataBlock> block)
{
    ZebHashingTask::Started started = ZebHashingTask::start(hashingPool(), std::move(block));
    m_Task.swap(started.m_Task);
    m_Future = started.m_Future;
}

ZebHashingJob::ZebHashingJob(const ZebHashingJob& other)
    : ZebBlockFuture(other),
      m_Task(other.m_Task),
      m_Future(other.m_Future),
      m_Result(other.result())
{}

ZebHashingJob::~ZebHashingJob()
{
    // The thread that would do the work is the parent's.
    if (ZebForkWatch::isStoreOfParent())
        return;
    bool isLost = false;
    try {
        ZebHashingTask::wait(m_Task, m_Future);
        // Without a store another attempt would end the process.
        if (m_Task->isUndone() && ZebDataBlockManager::instance().isInitialized())
            m_Task->retry();
        isLost = m_Task->isUndone();
    } catch (...) {
        isLost = true;
    }
    if (isLost)
        reportLostBlock();
}

ZebHashingJob& ZebHashingJob::operator=(const ZebHashingJob& other)
{
    if (this == &other)
        return *this;
    ZebBlockFuture::operator=(other);
    m_Task = other.m_Task;
    m_Future = other.m_Future;
    // The old result is dropped after the mutex is released: it may be the last reference to its
    // hash.
    ZebDataReference theirs = other.result();
    {
        const ZebMutexLocker locker(&m_ResultMutex);
        m_Result.swap(theirs);
    }
    return *this;
}

ZebDataReference ZebHashingJob::result() const
{
    const ZebMutexLocker locker(&m_ResultMutex);
    return m_Result;
}

ZebDataReference ZebHashingJob::data()
{
    ZebDataReference known = result();
    if (!known.isNull())
        return known;
    known = finished();
    const ZebMutexLocker locker(&m_ResultMutex);
    if (m_Result.isNull())
        m_Result = known;
    return known;
}

ZebDataReference ZebHashingJob::finished()
{
    // Waits for the end of the task, not only for its result: the task keeps nothing alive then.
    // The result in the future does not change, so it is copied without a lock.
    ZebHashingTask::wait(m_Task, m_Future);
    return m_Task->hasFailed() ? m_Task->retry() : m_Future.result();
}

int ZebHashingJob::liveHashJobCount()
{
    return m_LiveHashJobCount.loadRelaxed();
}

int ZebHashingJob::unfinishedHashJobCount()
{
    return m_UnfinishedHashJobCount.loadRelaxed();
}

ZebDataReference ZebHashingJob::processBlock(ZebDataBlock* block)
{
    if (block == nullptr)
        return {};
    std::unique_ptr<ZebDataBlock> owned(block);
    const ZebSmartPointer<ZebDataHash> hash = ZebHashManager::instance().getHash(block->m_Data);
    return ZebDataBlockManager::instance().admit(hash, owned.release());
}

ZebDataReference ZebHashingJob::processBlockByteArray(const QByteArray& bytes)
{
    const ZebSmartPointer<ZebDataHash> hash = ZebHashManager::instance().getHash(bytes);
    return ZebDataBlockManager::instance().admit(hash, new ZebDataBlock(bytes));
}

const QByteArray& ZebHashingJob::contentOf(const ZebDataBlock& block)
{
    return block.m_Data;
}

std::unique_ptr<ZebDataBlock> ZebHashingJob::makeBlock(const QByteArray& bytes, qint64 size,
                                                       bool isCompressed)
{
    auto block = std::make_unique<ZebDataBlock>(bytes);
    block->m_Size = size;
    block->m_Compressed = isCompressed;
    return block;
}

ZebSmartPointer<ZebDataHash> ZebHashingJob::intern(const unsigned char* digest,
                                                   const QByteArray& bytes)
{
    ZebHashManager& registry = ZebHashManager::instance();
    return digest == nullptr
               ? registry.getHash(bytes)
               : registry.intern({ZebDataHash::Hash512, digest, ZebDataHash::Hash512});
}

ZebDataReference ZebHashingJob::admit(const ZebSmartPointer<ZebDataHash>& hash,
                                      std::unique_ptr<ZebDataBlock> block)
{
    return ZebDataBlockManager::instance().admit(hash, block.release());
}
