#pragma once

// Internal: a call that runs on a thread pool and leaves its result in a future. Not installed.

#include <QException>
#include <QFuture>
#include <QFutureInterface>
#include <QRunnable>
#include <QThreadPool>

#include <optional>
#include <utility>

namespace ZebStoredCall {

/// Runs `call` and leaves its result on `promise`. An exception that leaves the call is kept there
/// and thrown again where the result is asked for.
template <typename T, typename Call>
void report(QFutureInterface<T>& promise, Call&& call)
{
    try {
        const T result = call();
        promise.reportResult(result);
    } catch (const QException& exception) {
        promise.reportException(exception);
    } catch (...) {
        promise.reportException(QUnhandledException());
    }
}

} // namespace ZebStoredCall

/// The task behind ZebStoredCall::start().
///
/// Pool and task are noted on the future, so a thread that waits for a call that has not begun runs
/// it itself: a wait inside a full or one-thread pool ends.
///
/// When the future reports that it has finished, the task holds neither the call nor the result any
/// more: what they keep alive ends with the last future, on the thread that drops it, and not some
/// time later on the pool.
template <typename T, typename Call>
class ZebStoredCallTask final : public QRunnable
{
public:
    explicit ZebStoredCallTask(Call call) : m_Call(std::move(call)), m_Promise(std::in_place) {}

    QFuture<T> start(QThreadPool* pool)
    {
        m_Promise->setThreadPool(pool);
        m_Promise->setRunnable(this);
        m_Promise->reportStarted();
        // The task may have run and gone once the pool has it.
        QFuture<T> future = m_Promise->future();
        pool->start(this, 0);
        return future;
    }

    void run() override
    {
        QFutureInterfaceBase state(*m_Promise);
        if (!state.isCanceled())
            ZebStoredCall::report(*m_Promise, *m_Call);
        m_Call.reset();
        m_Promise.reset();
        state.reportFinished();
    }

private:
    std::optional<Call> m_Call;
    std::optional<QFutureInterface<T>> m_Promise;
};

namespace ZebStoredCall {

/// Runs `call`, which gives a T, on `pool` at priority 0 and returns the future of its result. An
/// exception that leaves the call is kept and thrown again where the result is asked for.
template <typename T, typename Call>
QFuture<T> start(QThreadPool* pool, Call call)
{
    return (new ZebStoredCallTask<T, Call>(std::move(call)))->start(pool);
}

} // namespace ZebStoredCall
