// How a writer of any form handles a wake-up that comes between two of its waits.

#include "io/WriterForms.h"

#include <gtest/gtest.h>

#include <atomic>
#include <dlfcn.h>
#include <pthread.h>

namespace {

// How often the calling thread has waited with a time limit.
thread_local int s_TimedWaits = 0;

template <typename Form>
class WriterWakeConformance : public ::testing::Test
{};
TYPED_TEST_SUITE(WriterWakeConformance, WriterForms, WriterFormNames);

} // namespace

// Replaces the system's function for everything that this program loads.
extern "C" __attribute__((visibility("default"))) int
pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* until)
{
    using Function = int (*)(pthread_cond_t*, pthread_mutex_t*, const timespec*);
    static const auto system =
        reinterpret_cast<Function>(dlsym(RTLD_NEXT, "pthread_cond_timedwait"));
    ++s_TimedWaits;
    return system(condition, mutex, until);
}

TYPED_TEST(WriterWakeConformance, EarlyWakeUpsCount)
{
    TypeParam station;
    FileInTheWay obstacle(station.bucket("queued"));
    std::atomic<int> waits{-1};
    station.onEachFailure([&](int failures, const QString&) {
        if (failures > 1)
            return;
        waits = s_TimedWaits;
        obstacle.remove();
    });
    // The wake-up comes before there is a thread.
    station.queue("queued");
    station.start();
    // Nothing here wakes it.
    EXPECT_TRUE(waitUntil([&] { return station.block("queued").cached(); }));
    EXPECT_EQ(waits, 0);
}

TYPED_TEST(WriterWakeConformance, EachWakeUpCountsOnce)
{
    TypeParam station;
    station.queue("queued");
    station.start();
    EXPECT_TRUE(waitUntil([&] { return station.block("queued").cached(); }));
    // Otherwise it would run through its list all the time.
    EXPECT_TRUE(station.watch().waitsFor(WriterInside::waitCondition(station.writer())));
}
