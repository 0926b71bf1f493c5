#include "data/ZebThreadPoolManager.h"

#include <QAtomicInt>
#include <QSemaphore>
#include <QThread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <set>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

constexpr int s_DeadlineMs = 20000;

QThreadPool* pool(int type)
{
    return ZebThreadPoolManager::instance().threadPool(
        static_cast<ZebThreadPoolManager::ZebThreadPoolType>(type));
}

// A task that ends during the exit of the process.
class LastTask : public QRunnable
{
public:
    explicit LastTask(const char* name) : m_Name(name) {}

    void run() override
    {
        s_Exiting.acquire();
        std::fprintf(stderr, "<%s done>", m_Name);
    }

    static QSemaphore s_Exiting;

private:
    const char* m_Name;
};

QSemaphore LastTask::s_Exiting;

// Ends the process while a task runs in each own pool. Exit handlers run last in, first out: the
// tasks continue before the pools are destroyed, and the last line is printed after that.
[[noreturn]] void exitWhileTasksRun()
{
    std::atexit([] { std::fprintf(stderr, "<pools gone>"); });
    QThreadPool* const hashing = pool(ZebThreadPoolManager::HashingThreadPool);
    QThreadPool* const own = pool(ZebThreadPoolManager::PrivateThreadPool);
    hashing->start(new LastTask("hashing"));
    own->start(new LastTask("private"));
    std::atexit([] { LastTask::s_Exiting.release(2); });
    std::exit(0);
}

} // namespace

TEST(ZebThreadPoolManager, TypesHaveTheirNumbers)
{
    EXPECT_EQ(static_cast<int>(ZebThreadPoolManager::GlobalThreadPool), 0);
    EXPECT_EQ(static_cast<int>(ZebThreadPoolManager::PrivateThreadPool), 1);
    EXPECT_EQ(static_cast<int>(ZebThreadPoolManager::HashingThreadPool), 2);
}

TEST(ZebThreadPoolManager, HostsCannotMakeAnother)
{
    static_assert(!std::is_default_constructible_v<ZebThreadPoolManager>);
    static_assert(!std::is_copy_constructible_v<ZebThreadPoolManager>);
    static_assert(!std::is_copy_assignable_v<ZebThreadPoolManager>);
    static_assert(std::is_destructible_v<ZebThreadPoolManager>);
    EXPECT_EQ(&ZebThreadPoolManager::instance(), &ZebThreadPoolManager::instance());
}

TEST(ZebThreadPoolManager, GlobalTypeIsQtsPool)
{
    EXPECT_EQ(pool(ZebThreadPoolManager::GlobalThreadPool), QThreadPool::globalInstance());
}

TEST(ZebThreadPoolManager, OwnPoolsAreTwoAndStayTheSame)
{
    QThreadPool* const own = pool(ZebThreadPoolManager::PrivateThreadPool);
    QThreadPool* const hashing = pool(ZebThreadPoolManager::HashingThreadPool);
    ASSERT_NE(own, nullptr);
    ASSERT_NE(hashing, nullptr);
    EXPECT_NE(own, hashing);
    EXPECT_NE(own, QThreadPool::globalInstance());
    EXPECT_NE(hashing, QThreadPool::globalInstance());
    EXPECT_EQ(pool(ZebThreadPoolManager::PrivateThreadPool), own);
    EXPECT_EQ(pool(ZebThreadPoolManager::HashingThreadPool), hashing);
    EXPECT_EQ(own->parent(), nullptr);
    EXPECT_EQ(hashing->parent(), nullptr);
}

TEST(ZebThreadPoolManager, HashingPoolIsTheLaterMemberAndIsDestroyedFirst)
{
    EXPECT_TRUE(std::less<>()(pool(ZebThreadPoolManager::PrivateThreadPool),
                              pool(ZebThreadPoolManager::HashingThreadPool)));
}

TEST(ZebThreadPoolManager, AnyOtherTypeIsQtsPool)
{
    for (const int type : {-1, 3, 4, 1000})
        EXPECT_EQ(pool(type), QThreadPool::globalInstance()) << type;
}

TEST(ZebThreadPoolManager, OwnPoolsKeepQtsDefaults)
{
    const QThreadPool fresh;
    for (const int type :
         {ZebThreadPoolManager::PrivateThreadPool, ZebThreadPoolManager::HashingThreadPool}) {
        EXPECT_EQ(pool(type)->maxThreadCount(), QThread::idealThreadCount()) << type;
        EXPECT_EQ(pool(type)->expiryTimeout(), fresh.expiryTimeout()) << type;
    }
}

TEST(ZebThreadPoolManager, ManyThreadsGetTheSameManager)
{
    std::vector<ZebThreadPoolManager*> seen(8);
    std::vector<std::thread> threads;
    for (ZebThreadPoolManager*& place : seen)
        threads.emplace_back([&place] { place = &ZebThreadPoolManager::instance(); });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(std::set<ZebThreadPoolManager*>(seen.begin(), seen.end()).size(), 1U);
}

TEST(ZebThreadPoolManager, ABusyPoolDoesNotBlockTheOther)
{
    QThreadPool* const own = pool(ZebThreadPoolManager::PrivateThreadPool);
    QThreadPool* const hashing = pool(ZebThreadPoolManager::HashingThreadPool);
    QSemaphore busy;
    QSemaphore gate;
    QSemaphore ran;
    const int count = hashing->maxThreadCount();
    for (int i = 0; i < count; ++i) {
        hashing->start([&] {
            busy.release();
            if (!gate.tryAcquire(1, s_DeadlineMs))
                ADD_FAILURE() << "the gate stayed shut";
        });
    }
    EXPECT_TRUE(busy.tryAcquire(count, s_DeadlineMs));
    own->start([&] { ran.release(); });
    EXPECT_TRUE(ran.tryAcquire(1, s_DeadlineMs));
    gate.release(count);
    hashing->waitForDone();
    own->waitForDone();
}

TEST(ZebThreadPoolManager, ProcessExitWaitsForTheTasksOfBothOwnPools)
{
    EXPECT_EXIT(exitWhileTasksRun(), ::testing::ExitedWithCode(0),
                ::testing::AnyOf(::testing::HasSubstr("<hashing done><private done><pools gone>"),
                                 ::testing::HasSubstr("<private done><hashing done><pools gone>")));
}
