#pragma once

// Internal: the hashing tasks that no thread has begun. Not installed.

#include "support/ZebThreadSafety.h"

#include <QMutex>

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>

class ZebHashingTask;

/// The hashing tasks that wait for a thread of the pool, oldest first, so that a task that starts
/// can claim others and digest all of them together. A task is listed from before the pool queues
/// it until a thread claims it. A task for which the pool has an idle thread is never listed.
///
/// Ownership: shared with the pool, which holds the task until it has run it.
///
/// Thread safety: any thread may call any operation.
///
/// Locks: m_Mutex is not part of the lock order: no other lock is taken inside it.
class ZebHashingQueue
{
public:
    using TaskPointer = std::shared_ptr<ZebHashingTask>;

    /// The queue of the process. Never destroyed: a waiting thread may still run its task while the
    /// process exits.
    static ZebHashingQueue& instance();

    /// Appends a task.
    void add(const TaskPointer& task);

    /// Claims the given task, listed or not. Returns false if another thread has claimed it, which
    /// then does its work.
    bool take(ZebHashingTask* task);

    /// Claims the oldest tasks of the list: the caller's share of them, if `threads` threads divide
    /// these tasks and the caller's own among them, but at most `most`, and none if that is less
    /// than `fewest`. Stores them in `taken`, which has room for `most`, and returns how many. The
    /// caller does their work. Does not throw: nothing would ever finish a task that is claimed and
    /// lost.
    std::size_t takeWaiting(std::size_t fewest, std::size_t most, std::size_t threads,
                            TaskPointer* taken) noexcept;

private:
    Q_DISABLE_COPY(ZebHashingQueue)

    ZebHashingQueue() = default;

    // Also guards m_Place, m_Number and m_Taken of every task. The analysis cannot check these,
    // since a task does not know the queue.
    QMutex m_Mutex;

    std::list<TaskPointer> m_Waiting ZEBTDX_GUARDED_BY(m_Mutex);

    // How many tasks have been listed so far.
    std::uint64_t m_Listed ZEBTDX_GUARDED_BY(m_Mutex) = 0;
};
