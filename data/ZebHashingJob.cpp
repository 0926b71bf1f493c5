#include "data/ZebHashingJob.h"

#include "data/ZebDataBlock.h"
#include "data/ZebHashingTask.h"
#include "data/ZebThreadPoolManager.h"
#include "hash/ZebHashManager.h"
#include "manager/ZebDataBlockManager.h"
#include "support/ZebForkWatch.h"
#include "support/ZebMutexLocker.h"

#include <memory>
#include <utility>

QAtomicInt ZebHashingJob::m_LiveHashJobCount;
QAtomicInt ZebHashingJob::m_UnfinishedHashJobCount;

namespace {

QThreadPool* hashingPool()
{
    return ZebThreadPoolManager::instance().threadPool(ZebThreadPoolManager::HashingThreadPool);
}

} // namespace

ZebHashingJob::ZebHashingJob(const QByteArray& bytes)
    : m_Future(ZebHashingTask::start(hashingPool(), bytes))
{}

ZebHashingJob::ZebHashingJob(ZebDataBlock* block)
    : m_Future(ZebHashingTask::start(hashingPool(), block))
{}

ZebHashingJob::ZebHashingJob(const ZebHashingJob& other)
    : ZebBlockFuture(other), m_Future(other.m_Future), m_Result(other.result())
{}

ZebHashingJob::~ZebHashingJob()
{
    // The thread that would do the work is the parent's.
    if (ZebForkWatch::isStoreOfParent())
        return;
    try {
        ZebHashingTask::wait(m_Future);
    } catch (...) {
        // A failure of the work is reported to the callers of data(), of which there is none left.
        // NOLINTNEXTLINE(bugprone-empty-catch)
        Q_UNUSED(this)
    }
}

ZebHashingJob& ZebHashingJob::operator=(const ZebHashingJob& other)
{
    if (this == &other)
        return *this;
    ZebBlockFuture::operator=(other);
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
    // Waits for the end of the task, not only for its result: the task keeps nothing alive then.
    // The result in the future does not change, so it is copied without a lock.
    ZebHashingTask::wait(m_Future);
    known = m_Future.result();
    const ZebMutexLocker locker(&m_ResultMutex);
    if (m_Result.isNull())
        m_Result = known;
    return known;
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

ZebDataReference ZebHashingJob::admitDigested(const unsigned char* digest,
                                              std::unique_ptr<ZebDataBlock> block)
{
    const ZebSmartPointer<ZebDataHash> hash = ZebHashManager::instance().getDigested(digest);
    return ZebDataBlockManager::instance().admit(hash, block.release());
}

ZebDataReference ZebHashingJob::admitDigested(const unsigned char* digest, const QByteArray& bytes)
{
    const ZebSmartPointer<ZebDataHash> hash = ZebHashManager::instance().getDigested(digest);
    return ZebDataBlockManager::instance().admit(hash, new ZebDataBlock(bytes));
}
