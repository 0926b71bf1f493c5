#include "support/FailingAllocations.h"

#include <QByteArray>
#include <QHash>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <new>
#include <thread>

#include <sys/prctl.h>

namespace {

class FailingAllocationsTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!FailingAllocations::isAvailable())
            GTEST_SKIP() << "The allocator of a sanitizer cannot be replaced.";
    }
};

// Not inlined, so that the compiler cannot leave out the allocation.
__attribute__((noinline)) std::unique_ptr<int> allocate()
{
    return std::make_unique<int>(1);
}

bool doesAllocate()
{
    try {
        return allocate() != nullptr;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

} // namespace

TEST_F(FailingAllocationsTest, FailsTheChosenAllocationsAlone)
{
    const FailingAllocations failing(FailingAllocations::Here, 1);
    const bool results[] = {doesAllocate(), doesAllocate(), doesAllocate()};
    EXPECT_TRUE(results[0]);
    EXPECT_FALSE(results[1]);
    EXPECT_TRUE(results[2]);
    EXPECT_EQ(failing.failed(), 1);
}

TEST_F(FailingAllocationsTest, CountsAllocations)
{
    EXPECT_EQ(FailingAllocations::count([] { doesAllocate(); }), 1);
    EXPECT_EQ(FailingAllocations::count([] {}), 0);
}

TEST_F(FailingAllocationsTest, ReachesTheContainersOfQt)
{
    const FailingAllocations failing(FailingAllocations::Here, 0, FailingAllocations::s_All);
    EXPECT_THROW(QByteArray(100, 'x'), std::bad_alloc);
    QHash<int, int> table;
    EXPECT_THROW(table.insert(1, 1), std::bad_alloc);
}

TEST_F(FailingAllocationsTest, IgnoresSmallerAllocations)
{
    const FailingAllocations failing(FailingAllocations::Here, 0, FailingAllocations::s_All, 1000);
    EXPECT_TRUE(doesAllocate());
    EXPECT_THROW(QByteArray(1000, 'x'), std::bad_alloc);
}

TEST_F(FailingAllocationsTest, ReachesOtherThreads)
{
    bool onThisThread = true;
    bool onOwner = true;
    std::thread([&onOwner] {
        const FailingAllocations failing(FailingAllocations::Elsewhere, 0);
        onOwner = doesAllocate();
    }).join();
    EXPECT_TRUE(onOwner);
    std::atomic<bool> isArmed{false};
    std::atomic<bool> isDone{false};
    std::thread arms([&] {
        const FailingAllocations failing(FailingAllocations::Elsewhere, 0);
        isArmed = true;
        while (!isDone)
            std::this_thread::yield();
    });
    while (!isArmed)
        std::this_thread::yield();
    onThisThread = doesAllocate();
    isDone = true;
    arms.join();
    EXPECT_FALSE(onThisThread);
}

TEST_F(FailingAllocationsTest, ReachesThreadsOfOneName)
{
    bool results[] = {false, true};
    const char* const names[] = {"other", "chosen"};
    for (int i = 0; i < 2; ++i) {
        std::thread([&results, &names, i] {
            ::prctl(PR_SET_NAME, names[i]);
            const FailingAllocations failing("chosen", 0, FailingAllocations::s_All);
            results[i] = doesAllocate();
        }).join();
    }
    EXPECT_TRUE(results[0]);
    EXPECT_FALSE(results[1]);
}
