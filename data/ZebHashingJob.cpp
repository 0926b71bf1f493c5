#include "data/ZebHashingJob.h"

#include "data/ZebDataBlock.h"
#include "data/ZebHashingTask.h"
#include "data/ZebThreadPoolManager.h"
#include "hash/ZebHashManager.h"
#include "manager/ZebDataBlockManager.h"

#include <QMutexLocker>

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
    try {
        ZebHashingTask::wait(m_Future);
    } catch (...) {
        // What went wrong in the work belongs to whoever asks for its result; here nobody does.
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
    // The old result goes with the guard free: it may be the last reference on its hash.
    ZebDataReference theirs = other.result();
    {
        const QMutexLocker locker(&m_ResultMutex);
        m_Result.swap(theirs);
    }
    return *this;
}

ZebDataReference ZebHashingJob::result() const
{
    const QMutexLocker locker(&m_ResultMutex);
    return m_Result;
}

ZebDataReference ZebHashingJob::data()
{
    ZebDataReference known = result();
    if (!known.isNull())
        return known;
    // Waiting for the end of the task, and not only for its result, makes sure that the task holds
    // nothing any more. The stored result never changes, so it is copied with no lock.
    ZebHashingTask::wait(m_Future);
    known = m_Future.result();
    const QMutexLocker locker(&m_ResultMutex);
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
    return admit(hash.data(), std::move(owned));
}

ZebDataReference ZebHashingJob::processBlockByteArray(const QByteArray& bytes)
{
    const ZebSmartPointer<ZebDataHash> hash = ZebHashManager::instance().getHash(bytes);
    return admit(hash.data(), std::make_unique<ZebDataBlock>(bytes));
}

const QByteArray& ZebHashingJob::contentOf(const ZebDataBlock& block)
{
    return block.m_Data;
}

ZebDataReference ZebHashingJob::admitDigested(const unsigned char* digest,
                                              std::unique_ptr<ZebDataBlock> block)
{
    const ZebSmartPointer<ZebDataHash> hash = ZebHashManager::instance().getDigested(digest);
    return admit(hash.data(), std::move(block));
}

ZebDataReference ZebHashingJob::admitDigested(const unsigned char* digest, const QByteArray& bytes)
{
    const ZebSmartPointer<ZebDataHash> hash = ZebHashManager::instance().getDigested(digest);
    return admit(hash.data(), std::make_unique<ZebDataBlock>(bytes));
}

ZebDataReference ZebHashingJob::admit(ZebDataHash* hash, std::unique_ptr<ZebDataBlock> block)
{
    ZebDataBlockManager::instance().makeBlockLive(hash, block.release());
    return ZebDataBlockManager::instance().getReference(hash);
}
