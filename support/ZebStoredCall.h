#pragma once

// Internal: calls that run on a thread pool and leave their result in a future. Not installed.

#include <QException>
#include <QFuture>
#include <QFutureInterface>
#include <QRunnable>
#include <QThreadPool>

#include <memory>
#include <new>
#include <optional>
#include <utility>

namespace ZebStoredCall {

/// The result of a task that has not finished; empty afterwards.
template <typename T>
using Promise = std::optional<QFutureInterface<T>>;

/// Marks `promise` as started and returns its future. Called before `pool` gets `task`, since the
/// task may run and end at once then.
///
/// Pool and task are noted on the future, so a thread that waits for a task that has not begun runs
/// it itself: a wait inside a full or one-thread pool ends.
template <typename T>
QFuture<T> begin(Promise<T>& promise, QThreadPool* pool, QRunnable* task)
{
    promise->setThreadPool(pool);
    promise->setRunnable(task);
    promise->reportStarted();
    return promise->future();
}

/// Reports the end of a task.
///
/// `drop` releases what the task holds. It runs before the end is reported, and so does the end of
/// `promise`: once the future has finished, the task keeps nothing alive. What call and result hold
/// then ends with the last future, on the thread that drops it, and not later on the pool.
template <typename T, typename Drop>
void end(Promise<T>& promise, Drop&& drop)
{
    QFutureInterfaceBase state(*promise);
    drop();
    promise.reset();
    state.reportFinished();
}

/// Runs `call` unless its future is cancelled, leaves the result on `promise`, and reports the end
/// as end() does. An exception that leaves the call is stored there and thrown again where the
/// result is asked for. If there is no memory to store it, the future ends without a result. Does
/// not throw, since a thread of the pool would end the process.
template <typename T, typename Call, typename Drop>
void finish(Promise<T>& promise, Call&& call, Drop&& drop)
{
    if (!promise->isCanceled()) {
        try {
            try {
                const T result = call();
                promise->reportResult(result);
            } catch (const QException& exception) {
                promise->reportException(exception);
            } catch (...) {
                promise->reportException(QUnhandledException());
            }
        } catch (const std::bad_alloc&) {
            // Nothing can be stored on the future; it ends without a result.
        }
    }
    end(promise, std::forward<Drop>(drop));
}

} // namespace ZebStoredCall

/// The task that ZebStoredCall::start() queues.
template <typename T, typename Call>
class ZebStoredCallTask final : public QRunnable
{
public:
    explicit ZebStoredCallTask(Call call) : m_Call(std::move(call)), m_Promise(std::in_place) {}

    QFuture<T> start(QThreadPool* pool)
    {
        QFuture<T> future = ZebStoredCall::begin(m_Promise, pool, this);
        pool->start(this, 0);
        return future;
    }

    void run() override
    {
        ZebStoredCall::finish(m_Promise, *m_Call, [this] { m_Call.reset(); });
    }

private:
    std::optional<Call> m_Call;
    ZebStoredCall::Promise<T> m_Promise;
};

namespace ZebStoredCall {

/// Runs `call`, which returns a T, on `pool` at priority 0, and returns the future of its result.
template <typename T, typename Call>
QFuture<T> start(QThreadPool* pool, Call call)
{
    auto task = std::make_unique<ZebStoredCallTask<T, Call>>(std::move(call));
    QFuture<T> future = task->start(pool);
    // The pool owns it now, unless it has deleted it already.
    static_cast<void>(task.release());
    return future;
}

} // namespace ZebStoredCall
