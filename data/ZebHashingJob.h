#pragma once

#include "data/ZebBlockFuture.h"
#include "data/ZebDataReference.h"
#include "support/ZebTdxExport.h"

#include <QAtomicInt>
#include <QByteArray>
#include <QFuture>
#include <QMutex>

#include <memory>

class ZebDataBlock;
class ZebDataHash;

/// Digests, interns and admits one block on the hashing pool, so that who adds the block need not
/// wait. It runs from its construction on and cannot be cancelled.
///
/// Jobs that wait for a thread of the pool may be digested together with one that begins, where the
/// processor digests several contents faster than one after the other. Each is interned and
/// admitted on its own all the same, as soon as its digest is known.
///
/// Thread safety: data() may be called from several threads at once. A thread that waits for a job
/// which has not begun runs it itself, so no pool can be too small.
///
/// Locks: a waiting thread must not hold the delete lock, as the job takes it.
class ZEBTDX_EXPORT ZebHashingJob : public ZebBlockFuture
{
public:
    /// Adds a block of these bytes. The array's storage is shared until the block makes its copy.
    ZebHashingJob(const QByteArray& bytes);

    /// Adds this block, which passes to the job. A null block ends the job without a hash.
    ZebHashingJob(ZebDataBlock* block);

    /// Shares the running work.
    ZebHashingJob(const ZebHashingJob& other);

    /// Waits until the work has ended: a block that was given is in the store afterwards, also when
    /// nobody asked for the result.
    ~ZebHashingJob() override;

    ZebHashingJob& operator=(const ZebHashingJob& other);

    /// Waits until the work has ended and gives the reference.
    ZebDataReference data() override;

    /// Kept on purpose: always 0. numHashJobs() tells how many jobs are alive.
    static int liveHashJobCount();

    /// Kept on purpose: always 0.
    static int unfinishedHashJobCount();

protected:
    /// The work on a pool thread: hash, intern, admit. A null block gives a null reference.
    static ZebDataReference processBlock(ZebDataBlock* block);

    /// The same for bytes, with the block built on the spot.
    static ZebDataReference processBlockByteArray(const QByteArray& bytes);

private:
    friend class ZebHashingTask;

    /// The bytes whose digest is the block's identity: as they are stored.
    static const QByteArray& contentOf(const ZebDataBlock& block);

    /// What is left of the work when the digest, of 64 bytes, is known.
    static ZebDataReference admitDigested(const unsigned char* digest,
                                          std::unique_ptr<ZebDataBlock> block);
    static ZebDataReference admitDigested(const unsigned char* digest, const QByteArray& bytes);

    /// Admits the block under its interned hash, which the caller holds.
    static ZebDataReference admit(ZebDataHash* hash, std::unique_ptr<ZebDataBlock> block);

    /// A copy of m_Result, taken under its guard.
    ZebDataReference result() const;

    QFuture<ZebDataReference> m_Future;

    // What the work gave, once somebody has asked; null until then.
    ZebDataReference m_Result;

    // Guards m_Result, which several threads may set to the same value at once. Only the mutex of
    // a hash is taken inside it, to count a holder.
    mutable QMutex m_ResultMutex;

    static QAtomicInt m_LiveHashJobCount;
    static QAtomicInt m_UnfinishedHashJobCount;
};
