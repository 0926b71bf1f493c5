#include "support/SequencePoints.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

TEST(SequencePoints, AWaitReturnsOnceItsPointIsReached)
{
    SequencePoints points;
    std::atomic<bool> done{false};
    std::thread thread([&] {
        EXPECT_TRUE(points.wait("go"));
        done.store(true);
        points.reached("done");
    });
    EXPECT_FALSE(done.load());
    points.reached("go");
    EXPECT_TRUE(points.wait("done"));
    EXPECT_TRUE(done.load());
    thread.join();
}

TEST(SequencePoints, APointStaysReached)
{
    SequencePoints points;
    points.reached("early");
    EXPECT_TRUE(points.wait("early", 1, 0));
    EXPECT_TRUE(points.wait("early", 1, 0));
}

TEST(SequencePoints, AWaitCountsArrivals)
{
    SequencePoints points;
    constexpr int threadCount = 4;
    std::vector<std::thread> threads;
    for (int i = 0; i < threadCount; ++i)
        threads.emplace_back([&] { points.reached("here"); });
    EXPECT_TRUE(points.wait("here", threadCount));
    EXPECT_EQ(points.arrivals("here"), threadCount);
    EXPECT_EQ(points.arrivals("there"), 0);
    for (std::thread& thread : threads)
        thread.join();
}

TEST(SequencePoints, TwoThreadsTakeTurns)
{
    SequencePoints points;
    std::string order;
    std::thread other([&] {
        points.wait("one");
        order += '2';
        points.reachedThenWait("two", "three");
        order += '4';
        points.reached("four");
    });
    order += '1';
    EXPECT_TRUE(points.reachedThenWait("one", "two"));
    order += '3';
    EXPECT_TRUE(points.reachedThenWait("three", "four"));
    EXPECT_EQ(order, "1234");
    other.join();
}

TEST(SequencePoints, AMissedDeadlineFailsTheTestAndNamesThePoint)
{
    SequencePoints points;
    points.reached("begun");
    bool inTime = true;
    EXPECT_NONFATAL_FAILURE(inTime = points.wait("never", 2, 1),
                            "missed \"never\": 0 of 2 arrivals; reached so far: \"begun\"");
    EXPECT_FALSE(inTime);
}
