#include "support/ZebStoredCall.h"

#include "support/WaitUntil.h"

#include <QAtomicInt>
#include <QFutureSynchronizer>
#include <QFutureWatcher>
#include <QSemaphore>
#include <QThread>

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

constexpr int s_DeadlineMs = 20000;

// A result that counts its copies, and records the thread that destroyed the last of them.
class Counted
{
public:
    Counted() { s_Alive.fetchAndAddOrdered(1); }
    Counted(const Counted& other) : m_Value(other.m_Value) { s_Alive.fetchAndAddOrdered(1); }
    ~Counted()
    {
        if (s_Alive.fetchAndAddOrdered(-1) == 1)
            s_LastEnd.storeRelease(QThread::currentThreadId());
    }
    Counted& operator=(const Counted& other) = default;

    int m_Value = 0;

    static QAtomicInt s_Alive;
    static QAtomicPointer<void> s_LastEnd;
};

QAtomicInt Counted::s_Alive;
QAtomicPointer<void> Counted::s_LastEnd;

class Failure : public QException
{
public:
    explicit Failure(int code) : m_Code(code) {}
    void raise() const override { throw *this; }
    Failure* clone() const override { return new Failure(*this); }

    int m_Code;
};

// A pool whose threads are all busy until release(), for calls that must not begin in the pool.
class BusyPool
{
public:
    explicit BusyPool(int threads)
    {
        m_Pool.setMaxThreadCount(threads);
        for (int i = 0; i < threads; ++i) {
            m_Blockers.addFuture(ZebStoredCall::start<bool>(&m_Pool, [this] {
                m_Begun.release();
                return m_Release.tryAcquire(1, s_DeadlineMs);
            }));
        }
        m_Begun.acquire(threads);
    }
    ~BusyPool() { release(); }

    void release()
    {
        m_Release.release(m_Pool.maxThreadCount());
        m_Blockers.waitForFinished();
        for (const QFuture<bool>& blocker : m_Blockers.futures())
            EXPECT_TRUE(blocker.result());
        m_Blockers.clearFutures();
        EXPECT_TRUE(m_Pool.waitForDone(s_DeadlineMs));
    }

    QThreadPool* pool() { return &m_Pool; }

private:
    QSemaphore m_Begun;
    QSemaphore m_Release;
    QThreadPool m_Pool;
    QFutureSynchronizer<bool> m_Blockers;
};

} // namespace

TEST(ZebStoredCall, GivesTheResult)
{
    QThreadPool pool;
    QFuture<std::string> future =
        ZebStoredCall::start<std::string>(&pool, [] { return std::string("done"); });
    EXPECT_EQ(future.result(), "done");
    future.waitForFinished();
    EXPECT_TRUE(future.isFinished());
    EXPECT_EQ(future.resultCount(), 1);
    EXPECT_FALSE(future.isCanceled());
    // The result can be fetched again.
    EXPECT_EQ(future.result(), "done");
}

TEST(ZebStoredCall, RunsOnThePoolWithoutAWaitingThread)
{
    QThreadPool pool;
    QAtomicPointer<void> thread;
    const QFuture<int> future = ZebStoredCall::start<int>(&pool, [&] {
        thread.storeRelease(QThread::currentThreadId());
        return 1;
    });
    ASSERT_TRUE(waitUntil([&] { return future.isFinished(); }, s_DeadlineMs));
    EXPECT_NE(thread.loadAcquire(), nullptr);
    EXPECT_NE(thread.loadAcquire(), QThread::currentThreadId());
}

TEST(ZebStoredCall, IsStartedAndNotFinishedUntilTheCallHasRun)
{
    QThreadPool pool;
    QSemaphore begun;
    QSemaphore release;
    QFuture<int> future = ZebStoredCall::start<int>(&pool, [&] {
        begun.release();
        release.acquire();
        return 1;
    });
    begun.acquire();
    EXPECT_TRUE(future.isStarted());
    EXPECT_TRUE(future.isRunning());
    EXPECT_FALSE(future.isFinished());
    EXPECT_EQ(future.resultCount(), 0);
    release.release();
    future.waitForFinished();
    EXPECT_EQ(future.result(), 1);
    EXPECT_TRUE(future.isFinished());
    EXPECT_FALSE(future.isRunning());
}

TEST(ZebStoredCall, NotifiesAWatcherWhenItHasFinished)
{
    QThreadPool pool;
    QFutureWatcher<int> watcher;
    int finished = 0;
    QObject::connect(&watcher, &QFutureWatcher<int>::finished, [&] { ++finished; });
    watcher.setFuture(ZebStoredCall::start<int>(&pool, [] { return 5; }));
    EXPECT_TRUE(waitUntil([&] { return finished > 0; }, s_DeadlineMs));
    EXPECT_EQ(finished, 1);
    EXPECT_EQ(watcher.result(), 5);
}

TEST(ZebStoredCall, KeepsAnExceptionForEveryCaller)
{
    QThreadPool pool;
    const QFuture<int> future =
        ZebStoredCall::start<int>(&pool, []() -> int { throw Failure(17); });
    for (int call = 0; call < 2; ++call) {
        try {
            future.result();
            ADD_FAILURE() << "nothing was thrown";
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.m_Code, 17);
        }
    }
    EXPECT_TRUE(waitUntil([&] { return future.isFinished(); }, s_DeadlineMs));
    EXPECT_EQ(future.resultCount(), 0);
}

TEST(ZebStoredCall, WrapsAnExceptionThatIsNotAQException)
{
    QThreadPool pool;
    QFuture<int> future =
        ZebStoredCall::start<int>(&pool, []() -> int { throw std::runtime_error("x"); });
    EXPECT_THROW(future.waitForFinished(), QUnhandledException);
    EXPECT_TRUE(future.isFinished());
    EXPECT_EQ(future.resultCount(), 0);
}

TEST(ZebStoredCall, AWaitingThreadRunsACallThatHasNotBegun)
{
    BusyPool busy(1);
    void* thread = nullptr;
    const QFuture<int> future = ZebStoredCall::start<int>(busy.pool(), [&] {
        thread = QThread::currentThreadId();
        return 3;
    });
    EXPECT_FALSE(future.isFinished());
    EXPECT_EQ(future.result(), 3);
    EXPECT_EQ(thread, QThread::currentThreadId());
    EXPECT_TRUE(future.isFinished());
}

TEST(ZebStoredCall, AStolenCallThrowsToItsWaiter)
{
    BusyPool busy(1);
    QFuture<int> future = ZebStoredCall::start<int>(busy.pool(), []() -> int { throw Failure(4); });
    EXPECT_THROW(future.waitForFinished(), Failure);
    EXPECT_TRUE(future.isFinished());
}

TEST(ZebStoredCall, AWaitInsideAPoolOfOneThreadEnds)
{
    QThreadPool pool;
    pool.setMaxThreadCount(1);
    // Three nested calls, each of which waits for the next in a pool of one thread.
    const QFuture<int> outer = ZebStoredCall::start<int>(&pool, [&pool] {
        const QFuture<int> middle = ZebStoredCall::start<int>(&pool, [&pool] {
            return 10 + ZebStoredCall::start<int>(&pool, [] { return 1; }).result();
        });
        return 100 + middle.result();
    });
    ASSERT_TRUE(waitUntil([&] { return outer.isFinished(); }, s_DeadlineMs));
    EXPECT_EQ(outer.result(), 111);
}

TEST(ZebStoredCall, WaitsInsideAFullPoolEnd)
{
    QThreadPool pool;
    pool.setMaxThreadCount(2);
    QList<QFuture<int>> outer;
    for (int i = 0; i < 8; ++i) {
        outer.append(ZebStoredCall::start<int>(&pool, [&pool, i] {
            return 10 * i + ZebStoredCall::start<int>(&pool, [] { return 1; }).result();
        }));
    }
    for (int i = 0; i < outer.size(); ++i) {
        ASSERT_TRUE(waitUntil([&] { return outer.at(i).isFinished(); }, s_DeadlineMs));
        EXPECT_EQ(outer.at(i).result(), 10 * i + 1);
    }
}

TEST(ZebStoredCall, RunsOnceForAllWaitingThreads)
{
    for (int round = 0; round < 100; ++round) {
        QThreadPool pool;
        QAtomicInt runs;
        const QFuture<int> future =
            ZebStoredCall::start<int>(&pool, [&] { return runs.fetchAndAddOrdered(1) + 1; });
        std::thread other([&] { EXPECT_EQ(future.result(), 1); });
        EXPECT_EQ(future.result(), 1);
        other.join();
        EXPECT_EQ(runs.loadAcquire(), 1);
    }
}

TEST(ZebStoredCall, ACallThatIsCancelledInTimeNeverRuns)
{
    BusyPool busy(1);
    bool ran = false;
    QFuture<int> future = ZebStoredCall::start<int>(busy.pool(), [&] {
        ran = true;
        return 1;
    });
    future.cancel();
    future.waitForFinished();
    busy.release();
    EXPECT_TRUE(future.isFinished());
    EXPECT_TRUE(future.isCanceled());
    EXPECT_EQ(future.resultCount(), 0);
    EXPECT_FALSE(ran);
}

TEST(ZebStoredCall, TheResultEndsWithTheLastFutureOnItsThread)
{
    ASSERT_EQ(Counted::s_Alive.loadAcquire(), 0);
    for (int round = 0; round < 500; ++round) {
        QThreadPool pool;
        Counted::s_LastEnd.storeRelease(nullptr);
        {
            QFuture<Counted> future =
                ZebStoredCall::start<Counted>(&pool, [] { return Counted(); });
            // isFinished() does not run the call: the pool does, and this thread sees the end as
            // early as possible.
            while (!future.isFinished())
                QThread::yieldCurrentThread();
            ASSERT_EQ(Counted::s_Alive.loadAcquire(), 1) << "round " << round;
            const QFuture<Counted> copy = future;
            future = QFuture<Counted>();
            ASSERT_EQ(Counted::s_Alive.loadAcquire(), 1) << "round " << round;
        }
        ASSERT_EQ(Counted::s_Alive.loadAcquire(), 0) << "round " << round;
        ASSERT_EQ(Counted::s_LastEnd.loadAcquire(), QThread::currentThreadId());
    }
}

TEST(ZebStoredCall, TheResultOfAStolenCallEndsWithTheLastFuture)
{
    BusyPool busy(1);
    {
        const QFuture<Counted> future =
            ZebStoredCall::start<Counted>(busy.pool(), [] { return Counted(); });
        EXPECT_EQ(future.result().m_Value, 0);
        EXPECT_EQ(Counted::s_Alive.loadAcquire(), 1);
    }
    EXPECT_EQ(Counted::s_Alive.loadAcquire(), 0);
}

TEST(ZebStoredCall, AFinishedTaskHoldsNothing)
{
    QThreadPool pool;
    const auto captured = std::make_shared<int>(1);
    const auto call = [captured] {
        return Counted();
    };
    // The task outlives its run, like a task that the pool has not deleted yet.
    ZebStoredCallTask<Counted, decltype(call)> task(call);
    task.setAutoDelete(false);
    const long holders = captured.use_count();
    {
        QFuture<Counted> future = task.start(&pool);
        future.waitForFinished();
        EXPECT_EQ(Counted::s_Alive.loadAcquire(), 1);
        EXPECT_EQ(captured.use_count(), holders - 1);
    }
    EXPECT_EQ(Counted::s_Alive.loadAcquire(), 0);
    EXPECT_TRUE(pool.waitForDone(s_DeadlineMs));
}

TEST(ZebStoredCall, ADroppedFutureLeavesNoResult)
{
    QThreadPool pool;
    auto captured = std::make_shared<int>(1);
    for (int i = 0; i < 50; ++i)
        ZebStoredCall::start<Counted>(&pool, [captured] { return Counted(); });
    ASSERT_TRUE(pool.waitForDone(s_DeadlineMs));
    EXPECT_EQ(Counted::s_Alive.loadAcquire(), 0);
    EXPECT_EQ(captured.use_count(), 1);
}

TEST(ZebStoredCall, CapturesAreDestroyedBeforeTheFutureHasFinished)
{
    for (int round = 0; round < 500; ++round) {
        QThreadPool pool;
        auto captured = std::make_shared<int>(1);
        const QFuture<int> future =
            ZebStoredCall::start<int>(&pool, [captured] { return *captured; });
        while (!future.isFinished())
            QThread::yieldCurrentThread();
        ASSERT_EQ(captured.use_count(), 1) << "round " << round;
    }
}

TEST(ZebStoredCall, CapturesOfACancelledCallAreDestroyed)
{
    BusyPool busy(1);
    auto captured = std::make_shared<int>(1);
    QFuture<int> future = ZebStoredCall::start<int>(busy.pool(), [captured] { return *captured; });
    future.cancel();
    future.waitForFinished();
    EXPECT_EQ(captured.use_count(), 1);
}

TEST(ZebStoredCall, ACallMayBeMoveOnly)
{
    QThreadPool pool;
    auto value = std::make_unique<int>(8);
    const QFuture<int> future =
        ZebStoredCall::start<int>(&pool, [value = std::move(value)] { return *value; });
    EXPECT_EQ(future.result(), 8);
}
