#pragma once

// Internal: the work of a hashing job on the pool. Not installed.

#include "data/ZebDataReference.h"
#include "data/ZebHashingQueue.h"

#include <QByteArray>
#include <QFuture>
#include <QFutureInterface>
#include <QRunnable>

#include <cstddef>
#include <list>
#include <memory>
#include <optional>

class QThreadPool;
class ZebDataBlock;

/// Digests, interns and admits one block, and leaves the reference in a future.
///
/// A task that begins while others wait for a thread takes some of them along, as many as the
/// processor has lanes: their contents are digested together, and each is then finished as if it
/// had run alone. The pool still has those tasks in its queue; they find themselves taken and
/// return at once. With idle threads nothing waits, and each task has a thread for itself.
///
/// As with any stored call, pool and task are noted on the future, so a thread that waits for a
/// task that nobody has begun runs it itself; that one takes no others along, since who waits for
/// one content must not pay for more. When the future reports that it has finished, the task holds
/// neither the content nor the result any more.
///
/// Ownership: the pool holds the task until it has run it, and whoever has taken it until its
/// future has finished. So its address, which is noted on the future, is nobody else's before.
class ZebHashingTask final : public QRunnable
{
public:
    /// Starts the work for these bytes on `pool` at priority 0. Their storage is shared until the
    /// block makes its copy.
    static QFuture<ZebDataReference> start(QThreadPool* pool, const QByteArray& bytes);

    /// Starts the work for this block, which passes to the task. A null block gives a null
    /// reference.
    static QFuture<ZebDataReference> start(QThreadPool* pool, ZebDataBlock* block);

    /// Waits until the work has ended, or does it. Throws what the work has thrown. To be called
    /// instead of the future's own wait, for a steal to be told from a start by the pool.
    static void wait(QFuture<ZebDataReference>& future);

    ~ZebHashingTask() override;

    /// Called by the pool, or by a thread that waits.
    void run() override;

private:
    friend class ZebHashingQueue;

    using TaskPointer = ZebHashingQueue::TaskPointer;

    explicit ZebHashingTask(const QByteArray& bytes);
    explicit ZebHashingTask(ZebDataBlock* block);

    static QFuture<ZebDataReference> startShared(QThreadPool* pool, const TaskPointer& task);

    /// Digests the contents of all of them together and finishes each.
    static void runTogether(const TaskPointer* tasks, std::size_t count);

    /// Whether there is anything to digest.
    bool hasContent() const;

    /// Does what is left to do and reports the end. With a null digest that is all of the work.
    void finish(const unsigned char* digest);

    /// Digest, interning and admission, or what is left of that. Gives the content away.
    ZebDataReference admit(const unsigned char* digest);

    /// The bytes to digest.
    const QByteArray& content() const;

    // One of the two: the bytes when there is no block.
    QByteArray m_Bytes;
    std::unique_ptr<ZebDataBlock> m_Block;
    const bool m_IsBlock;

    // Empty once the work has ended.
    std::optional<QFutureInterface<ZebDataReference>> m_Promise;

    // The pool's hold, given up when it runs the task.
    TaskPointer m_HeldByPool;

    // The place in the queue, while it has one, and whether somebody does the work. Guarded by the
    // queue's mutex.
    std::optional<std::list<TaskPointer>::iterator> m_Place;
    bool m_Taken = false;
};
