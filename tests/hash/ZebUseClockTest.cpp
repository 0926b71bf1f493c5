#include "hash/ZebUseClock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

constexpr int s_Turns = 20000;

// The clock in both forms; the second is the one for the test of the sums.
class ZebUseClockForms : public ::testing::TestWithParam<bool>
{
protected:
    void SetUp() override { ZebUseClock::setUsesCounter(GetParam()); }
    void TearDown() override { ZebUseClock::setUsesCounter(false); }
};

} // namespace

TEST_P(ZebUseClockForms, GrowsOnOneThread)
{
    quint64 last = ZebUseClock::now();
    EXPECT_GT(last, 0U);
    for (int turn = 0; turn < s_Turns; ++turn) {
        const quint64 stamp = ZebUseClock::now();
        ASSERT_GT(stamp, last);
        last = stamp;
    }
}

// Two threads take stamps alternately, each after it has seen that the other one has taken its own.
TEST_P(ZebUseClockForms, GrowsFromThreadToThread)
{
    std::atomic<quint64> newest{ZebUseClock::now()};
    std::atomic<int> turn{0};
    int wrong = 0;
    const auto takeStamps = [&](int side) {
        for (int count = 0; count < s_Turns; ++count) {
            while (turn.load(std::memory_order_acquire) % 2 != side)
                std::this_thread::yield();
            const quint64 stamp = ZebUseClock::now();
            if (stamp <= newest.load(std::memory_order_relaxed))
                ++wrong;
            newest.store(stamp, std::memory_order_relaxed);
            turn.fetch_add(1, std::memory_order_release);
        }
    };
    std::thread other(takeStamps, 1);
    takeStamps(0);
    other.join();
    EXPECT_EQ(wrong, 0);
}

TEST_P(ZebUseClockForms, GoesOnAfterAStampOfTheFuture)
{
    constexpr quint64 hour = Q_UINT64_C(3600) * 3000000000;
    const quint64 future = ZebUseClock::now() + hour;
    ZebUseClock::keepAfter(future);
    const quint64 stamp = ZebUseClock::now();
    EXPECT_GT(stamp, future);
    EXPECT_LT(stamp, future + hour);
}

TEST_P(ZebUseClockForms, StaysIfTheStampIsOfThePast)
{
    const quint64 past = ZebUseClock::now();
    const quint64 base = ZebUseClock::s_Base.load();
    ZebUseClock::keepAfter(past);
    EXPECT_GT(ZebUseClock::now(), past);
    EXPECT_EQ(ZebUseClock::s_Base.load(), base);
}

INSTANTIATE_TEST_SUITE_P(Forms, ZebUseClockForms, ::testing::Bool());

TEST(ZebUseClock, GoesOnWhenItsFormChanges)
{
    quint64 last = ZebUseClock::now();
    for (int turn = 0; turn < 10; ++turn) {
        ZebUseClock::setUsesCounter(turn % 2 == 0);
        const quint64 stamp = ZebUseClock::now();
        ASSERT_GT(stamp, last) << turn;
        last = stamp;
    }
}
