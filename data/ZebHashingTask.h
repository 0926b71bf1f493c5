#pragma once

// Internal: the work of a hashing job on the pool. Not installed.

#include "data/ZebDataReference.h"
#include "data/ZebHashingQueue.h"
#include "support/ZebStoredCall.h"

#include <QByteArray>
#include <QFuture>
#include <QMutex>
#include <QRunnable>

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>

class QThreadPool;
class ZebDataBlock;

/// Digests, interns and admits one block, and stores the reference in a future.
///
/// A task that starts while others wait for a thread claims some of them, up to the number of lanes
/// of the processor and to its share of them, if all threads of the pool took as many. Their blocks
/// are digested together and then admitted in the order in which they were queued. The pool still
/// has the claimed tasks in its queue; they return at once when it runs them. While the pool has
/// idle threads no task waits, and each has a thread to itself.
///
/// Failure: an exception, which means that there was no memory, ends the future without a result.
/// The task then keeps its bytes, and retry() tries again. No exception leaves run(), since that
/// would end the process.
///
/// A thread that waits for a task which no thread has begun does its work, and claims no others: it
/// should not have to wait for blocks that it does not need.
///
/// Ownership: the pool holds the task until it has run it, and the thread that claimed it until its
/// future has finished. Its address, which the future stores, is not reused before.
class ZebHashingTask final : public QRunnable
{
public:
    /// A task that has been queued, and its future.
    struct Started
    {
        ZebHashingQueue::TaskPointer m_Task;
        QFuture<ZebDataReference> m_Future;
    };

    /// Queues the work for `bytes` on `pool` at priority 0. Shares their storage until the block is
    /// constructed. If it throws, nothing has been queued.
    static Started start(QThreadPool* pool, const QByteArray& bytes);

    /// Queues the work for `block` and takes ownership of it. The result of a null block is a null
    /// reference.
    static Started start(QThreadPool* pool, std::unique_ptr<ZebDataBlock> block);

    /// Waits until the work of a started task has finished, or does it on this thread if no other
    /// has begun it, even if the pool has handed the task to a thread: the system may have refused
    /// to start that one.
    static void wait(const ZebHashingQueue::TaskPointer& task, QFuture<ZebDataReference>& future);

    /// Waits until no task is unfinished but those that this thread has in hand, and does the work
    /// of listed ones meanwhile: the only thread of a pool may be the one that waits.
    static void finishAll();

    ~ZebHashingTask() override;

    /// Called by a thread of the pool.
    void run() override;

    /// Whether the work has failed, so that the future has no result. Only after wait().
    bool hasFailed() const;

    /// Whether the work has failed and no retry() has succeeded. Only after wait().
    bool isUndone() const;

    /// Does failed work again on this thread and returns the result, also of an earlier retry().
    /// Throws if it fails again; another call may then succeed. Any thread may call it. It must not
    /// hold the delete lock, since the work takes it.
    ZebDataReference retry();

private:
    friend class ZebHashingQueue;

    using TaskPointer = ZebHashingQueue::TaskPointer;

    explicit ZebHashingTask(const QByteArray& bytes);
    explicit ZebHashingTask(std::unique_ptr<ZebDataBlock> block);

    static Started startShared(QThreadPool* pool, const TaskPointer& task);

    /// Digests the blocks of all these tasks together, admits them in the order in which the tasks
    /// were queued, and reports the ends. Sorts the tasks.
    static void runTogether(TaskPointer* tasks, std::size_t count) noexcept;

    /// Does the work of a claimed task, and reports the end.
    void runAlone() noexcept;

    /// Interns and admits the block under `digest`, and keeps the result, or notes the failure.
    /// With a null `digest` it is computed first.
    void work(const unsigned char* digest) noexcept;

    /// Passes the result on to the future and reports the end. A task that has succeeded keeps
    /// nothing alive then.
    void reportEnd() noexcept;

    /// The work itself. Passes the block on; if it throws, m_Bytes, m_Size and m_IsCompressed still
    /// describe it.
    ZebDataReference admit(const unsigned char* digest);

    /// The bytes to digest.
    const QByteArray& content() const;

    void dropContent();

    // The block, until it has been passed on. What follows describes it from then on, or if there
    // was none.
    std::unique_ptr<ZebDataBlock> m_Block;
    QByteArray m_Bytes;
    qint64 m_Size = 0;
    bool m_IsCompressed = false;
    const bool m_HasContent; // false for a null block

    ZebStoredCall::Promise<ZebDataReference> m_Promise;

    // The result on its way to the future, or that of retry().
    std::optional<ZebDataReference> m_Result;

    // Written before the end is reported, read after the wait for it.
    bool m_HasFailed = false;

    // One retry at a time. Outside of all levels of the lock order: the delete lock is taken inside
    // it.
    mutable QMutex m_RetryMutex;

    QThreadPool* m_Pool = nullptr;

    // The pool's reference to the task, dropped when it runs the task.
    TaskPointer m_HeldByPool;

    // The place in the queue, if it is listed, its number among all that have been, and whether a
    // thread has claimed the task. Guarded by the queue's mutex; the number is constant once the
    // task has been claimed.
    std::optional<std::list<TaskPointer>::iterator> m_Place;
    std::uint64_t m_Number = 0;
    bool m_Taken = false;
};
