#pragma once

#include "data/ZebBlockFuture.h"
#include "data/ZebDataReference.h"
#include "support/ZebTdxExport.h"
#include "support/ZebThreadSafety.h"

#include <QAtomicInt>
#include <QByteArray>
#include <QFuture>
#include <QMutex>

#include <memory>

class ZebDataBlock;
class ZebDataHash;
class ZebHashingTask;

/// Digests, interns and admits one block on the hashing pool, so that the thread that adds the
/// block does not wait. The job is queued by its constructor and cannot be cancelled.
///
/// If the processor digests several blocks together faster than one after another, a job that
/// starts also digests the blocks of jobs that wait for a thread, up to its share of them. They are
/// then interned and admitted in the order in which the jobs were queued.
///
/// Failure: if there is no memory, the job keeps its bytes. data() then tries again on the calling
/// thread, as often as it is called, and so does the destructor, once; if that fails, too, it logs
/// that the block is lost.
///
/// Thread safety: several threads may call data() at once. A thread that waits for a job which has
/// not started runs it itself, so the wait ends even if all threads of the pool are busy.
///
/// Locks: a waiting thread must not hold the delete lock, since the job takes it.
class ZEBTDX_EXPORT ZebHashingJob : public ZebBlockFuture
{
public:
    /// Adds a block of these bytes. Shares their storage until the block is constructed.
    ZebHashingJob(const QByteArray& bytes);

    /// Adds `block` and takes ownership of it. With a null block the job finishes without a hash.
    ZebHashingJob(ZebDataBlock* block);

    /// Shares the work of the other job.
    ZebHashingJob(const ZebHashingJob& other);

    /// Waits until the work has finished: the block is in the store then, even if no caller asked
    /// for the result.
    ~ZebHashingJob() override;

    ZebHashingJob& operator=(const ZebHashingJob& other);

    /// Waits until the work has finished and returns the reference. Throws std::bad_alloc if the
    /// block could not be admitted; a later call tries again.
    ZebDataReference data() override;

    /// Kept on purpose: always 0. numHashJobs() returns how many jobs are alive.
    static int liveHashJobCount();

    /// Kept on purpose: always 0.
    static int unfinishedHashJobCount();

protected:
    /// Digests, interns and admits `block`, and takes ownership of it. A null block gives a null
    /// reference.
    static ZebDataReference processBlock(ZebDataBlock* block);

    /// The same for a new block of these bytes.
    static ZebDataReference processBlockByteArray(const QByteArray& bytes);

private:
    friend class ZebHashingTask;

    /// The bytes whose digest identifies the block: those stored, compressed or not.
    static const QByteArray& contentOf(const ZebDataBlock& block);

    /// A block with these bytes stored.
    static std::unique_ptr<ZebDataBlock> makeBlock(const QByteArray& bytes, qint64 size,
                                                   bool isCompressed);

    /// The interned hash of these bytes, whose digest of 64 bytes is `digest` unless that is null.
    static ZebSmartPointer<ZebDataHash> intern(const unsigned char* digest,
                                               const QByteArray& bytes);

    /// Admits a block under its hash.
    static ZebDataReference admit(const ZebSmartPointer<ZebDataHash>& hash,
                                  std::unique_ptr<ZebDataBlock> block);

    /// Waits for the work and returns its result, doing failed work again.
    ZebDataReference finished();

    /// A copy of m_Result.
    ZebDataReference result() const;

    explicit ZebHashingJob(std::unique_ptr<ZebDataBlock> block);

    // The work, for another attempt if it fails.
    std::shared_ptr<ZebHashingTask> m_Task;

    QFuture<ZebDataReference> m_Future;

    // The result, stored when a caller first asks for it; null until then.
    ZebDataReference m_Result ZEBTDX_GUARDED_BY(m_ResultMutex);

    // Not part of the lock order. Only the mutex of a hash is taken inside it, to add a holder.
    mutable QMutex m_ResultMutex;

    static QAtomicInt m_LiveHashJobCount;
    static QAtomicInt m_UnfinishedHashJobCount;
};
