#pragma once

// Internal: the work of a hashing job on the pool. Not installed.

#include "data/ZebDataReference.h"
#include "data/ZebHashingQueue.h"
#include "support/ZebStoredCall.h"

#include <QByteArray>
#include <QFuture>
#include <QRunnable>

#include <cstddef>
#include <list>
#include <memory>
#include <optional>

class QThreadPool;
class ZebDataBlock;

/// Digests, interns and admits one block, and stores the reference in a future.
///
/// A task that starts while others wait for a thread claims some of them, up to the number of lanes
/// of the processor: their blocks are digested together, and each is then finished as if it had run
/// alone. The pool still has the claimed tasks in its queue; they return at once when it runs them.
/// While the pool has idle threads no task waits, and each has a thread to itself.
///
/// It is a stored call, see ZebStoredCall::begin() and finish(). A thread that waits for a task
/// which has not started runs it itself, and then claims no others: it should not have to wait for
/// blocks that it does not need.
///
/// Ownership: the pool holds the task until it has run it, and the thread that claimed it until its
/// future has finished. Its address, which the future stores, is not reused before.
class ZebHashingTask final : public QRunnable
{
public:
    /// Queues the work for `bytes` on `pool` at priority 0. Shares their storage until the block is
    /// constructed.
    static QFuture<ZebDataReference> start(QThreadPool* pool, const QByteArray& bytes);

    /// Queues the work for `block` and takes ownership of it. The result of a null block is a null
    /// reference.
    static QFuture<ZebDataReference> start(QThreadPool* pool, ZebDataBlock* block);

    /// Waits until the work has finished, or does it on this thread. Throws what the work has
    /// thrown. Use it instead of waitForFinished() of the future, so that the task can
    /// distinguish a waiting thread from a thread of the pool.
    static void wait(QFuture<ZebDataReference>& future);

    ~ZebHashingTask() override;

    /// Called by a thread of the pool, or by a waiting thread.
    void run() override;

private:
    friend class ZebHashingQueue;

    using TaskPointer = ZebHashingQueue::TaskPointer;

    explicit ZebHashingTask(const QByteArray& bytes);
    explicit ZebHashingTask(ZebDataBlock* block);

    static QFuture<ZebDataReference> startShared(QThreadPool* pool, const TaskPointer& task);

    /// Digests the blocks of all these tasks together and finishes each.
    static void runTogether(const TaskPointer* tasks, std::size_t count);

    /// Whether there is anything to digest: false for a null block.
    bool hasContent() const;

    /// Interns and admits the block under `digest`, and reports the end. With a null `digest` it is
    /// computed first.
    void finish(const unsigned char* digest);

    /// The work of finish(). Passes the block on.
    ZebDataReference admit(const unsigned char* digest);

    /// The bytes to digest.
    const QByteArray& content() const;

    // m_Block if m_IsBlock is true, otherwise m_Bytes.
    QByteArray m_Bytes;
    std::unique_ptr<ZebDataBlock> m_Block;
    const bool m_IsBlock;

    ZebStoredCall::Promise<ZebDataReference> m_Promise;

    // The pool's reference to the task, dropped when it runs the task.
    TaskPointer m_HeldByPool;

    // The place in the queue, if it is listed, and whether a thread has claimed the task. Guarded
    // by the queue's mutex.
    std::optional<std::list<TaskPointer>::iterator> m_Place;
    bool m_Taken = false;
};
