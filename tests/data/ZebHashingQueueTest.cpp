#include "data/ZebHashingQueue.h"

#include "data/ZebHashingTask.h"

#include <QSemaphore>
#include <QThreadPool>

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

using TaskPointer = ZebHashingQueue::TaskPointer;

constexpr std::size_t s_Most = 8;

// A pool of one thread that is busy, so that every task started on it waits. The test takes the
// waiting tasks, which therefore never run.
class QueueOfTasks
{
public:
    explicit QueueOfTasks(int count)
    {
        m_Pool.setMaxThreadCount(1);
        m_Pool.start([this] {
            m_Begun.release();
            m_Gate.tryAcquire(1, 20000);
        });
        m_Begun.acquire();
        for (int i = 0; i < count; ++i)
            m_Futures.push_back(ZebHashingTask::start(&m_Pool, QByteArray::number(i)).m_Future);
    }
    ~QueueOfTasks()
    {
        release();
        for (QFuture<ZebDataReference>& future : m_Futures)
            EXPECT_FALSE(future.isFinished()) << "a taken task has run";
    }
    QueueOfTasks(const QueueOfTasks&) = delete;
    QueueOfTasks& operator=(const QueueOfTasks&) = delete;

    /// Lets the pool run its queue.
    void release()
    {
        m_Gate.release();
        m_Pool.waitForDone();
    }

private:
    QSemaphore m_Begun;
    QSemaphore m_Gate;
    std::vector<QFuture<ZebDataReference>> m_Futures;
    QThreadPool m_Pool;
};

std::vector<TaskPointer> takeWaiting(std::size_t fewest, std::size_t most, std::size_t threads = 1)
{
    TaskPointer taken[s_Most];
    const std::size_t count = ZebHashingQueue::instance().takeWaiting(fewest, most, threads, taken);
    return {std::begin(taken), std::begin(taken) + count};
}

} // namespace

TEST(ZebHashingQueue, GivesNothingWhenNothingWaits)
{
    EXPECT_TRUE(takeWaiting(0, s_Most).empty());
    EXPECT_TRUE(takeWaiting(1, s_Most).empty());
}

TEST(ZebHashingQueue, GivesNoMoreThanAskedFor)
{
    const QueueOfTasks queue(5);
    EXPECT_EQ(takeWaiting(1, 3).size(), 3U);
    EXPECT_EQ(takeWaiting(1, 3).size(), 2U);
    EXPECT_TRUE(takeWaiting(1, 3).empty());
}

TEST(ZebHashingQueue, GivesNothingWhenFewerWaitThanAskedFor)
{
    const QueueOfTasks queue(2);
    EXPECT_TRUE(takeWaiting(3, s_Most).empty());
    EXPECT_EQ(takeWaiting(2, s_Most).size(), 2U);
}

TEST(ZebHashingQueue, GivesTheShareOfOneThread)
{
    const QueueOfTasks queue(11);
    // Each call comes from a task of its own, so 12 tasks are divided, then 9, then 7.
    EXPECT_EQ(takeWaiting(1, s_Most, 4).size(), 2U);
    EXPECT_EQ(takeWaiting(1, s_Most, 4).size(), 2U);
    EXPECT_EQ(takeWaiting(1, s_Most, 2).size(), 3U);
    // A share of fewer than asked for is none.
    EXPECT_TRUE(takeWaiting(3, s_Most, 3).empty());
    EXPECT_TRUE(takeWaiting(1, s_Most, 16).empty());
    EXPECT_EQ(takeWaiting(1, s_Most, 1).size(), 4U);
}

TEST(ZebHashingQueue, TaskIsTakenOnce)
{
    const QueueOfTasks queue(3);
    const std::vector<TaskPointer> taken = takeWaiting(1, 2);
    ASSERT_EQ(taken.size(), 2U);
    EXPECT_FALSE(ZebHashingQueue::instance().take(taken[0].get()));
    EXPECT_FALSE(ZebHashingQueue::instance().take(taken[1].get()));
    EXPECT_EQ(takeWaiting(1, s_Most).size(), 1U);
}

TEST(ZebHashingQueue, PoolKeepsATaskUntilItHasRunIt)
{
    QueueOfTasks queue(1);
    std::vector<TaskPointer> taken = takeWaiting(1, 1);
    ASSERT_EQ(taken.size(), 1U);
    const std::weak_ptr<ZebHashingTask> task = taken.front();
    taken.clear();
    EXPECT_FALSE(task.expired());
    queue.release();
    EXPECT_TRUE(task.expired());
}

TEST(ZebHashingQueue, TakingATaskKeepsItAlive)
{
    QueueOfTasks queue(1);
    std::vector<TaskPointer> taken = takeWaiting(1, 1);
    ASSERT_EQ(taken.size(), 1U);
    const std::weak_ptr<ZebHashingTask> task = taken.front();
    queue.release();
    EXPECT_FALSE(task.expired());
    taken.clear();
    EXPECT_TRUE(task.expired());
}
