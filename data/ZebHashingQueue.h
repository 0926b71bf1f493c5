#pragma once

// Internal: the hashing tasks that no thread has begun. Not installed.

#include <QMutex>

#include <cstddef>
#include <list>
#include <memory>

class ZebHashingTask;

/// The hashing tasks that wait for a thread of the pool, oldest first, so that one that begins can
/// take others along. A task is in here from before the pool queues it until somebody takes it; a
/// task that found an idle thread never is.
///
/// Ownership: shared with the pool, which keeps a hold of its own until it has run the task.
///
/// Thread safety: any thread may call any operation.
class ZebHashingQueue
{
public:
    using TaskPointer = std::shared_ptr<ZebHashingTask>;

    /// The one queue of the process. It outlives the pools, whose tasks ask it.
    static ZebHashingQueue& instance();

    /// Puts a task at the end.
    void add(const TaskPointer& task);

    /// Takes this very task, waiting or not. False when somebody has taken it before: then it is
    /// theirs to do.
    bool take(ZebHashingTask* task);

    /// Takes the oldest tasks that wait, up to `most` of them, and writes them to `taken`, which
    /// has room for them; none when fewer than `fewest` wait. Returns how many were taken. The
    /// caller does their work. Throws nothing: a task that is taken and not done would be waited
    /// for in vain.
    std::size_t takeWaiting(std::size_t fewest, std::size_t most, TaskPointer* taken) noexcept;

private:
    Q_DISABLE_COPY(ZebHashingQueue)

    ZebHashingQueue() = default;

    std::list<TaskPointer> m_Waiting;

    // Guards the list, and what each task notes about its place in it. It stands aside of the
    // lock order: nothing else is taken inside it.
    QMutex m_Mutex;
};
