#include "hash/ZebReadGate.h"

#include "support/BlockedThread.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using ZebReadGate::Closed;
using ZebReadGate::Fenced;
using ZebReadGate::UnpinsSlow;

// The time after which the gate becomes plain, and some more.
constexpr std::chrono::milliseconds s_Calm{15};

quint32 bits()
{
    return ZebReadGate::s_Word.m_Bits.load();
}

// Waits out what the gate remembers of earlier closings.
void calmDown()
{
    std::this_thread::sleep_for(s_Calm);
}

void makePlain()
{
    calmDown();
    ZebReadGate::relax();
}

// Two closings within moments. Repeated if the scheduler came in between.
void makeFenced()
{
    for (int turn = 0; turn < 1000; ++turn) {
        for (int closing = 0; closing < 2; ++closing) {
            ZebReadGate::close();
            ZebReadGate::open();
        }
        if ((bits() & Fenced) != 0)
            return;
    }
    ADD_FAILURE() << "closings in a row leave the gate plain";
}

bool canBePlain()
{
    makePlain();
    return bits() == 0;
}

// The answer of enter(); leaves again.
bool canEnter()
{
    ZebThreadSlot* const slot = ZebThreadSlot::mine();
    const bool hasEntered = ZebReadGate::enter(slot);
    EXPECT_EQ(slot->m_Inside.load(), hasEntered ? 1U : 0U);
    if (hasEntered)
        ZebReadGate::leave(slot);
    EXPECT_EQ(slot->m_Inside.load(), 0U);
    return hasEntered;
}

// A closer waits for a thread that is inside and returns once it has left.
void expectWait()
{
    ZebThreadSlot* const slot = ZebThreadSlot::mine();
    ASSERT_TRUE(ZebReadGate::enter(slot));
    int written = 0;
    BlockedThread closer([&written] {
        ZebReadGate::close();
        EXPECT_EQ(written, 1);
        ZebReadGate::open();
    });
    // A closer that has waited for some time sleeps in between.
    EXPECT_TRUE(pollUntil(
        [&closer] { return closer.hasEnded() || closer.watch().isInCall(SYS_clock_nanosleep); }));
    EXPECT_EQ(bits() & Closed, Closed);
    EXPECT_FALSE(closer.hasEnded());
    written = 1;
    ZebReadGate::leave(slot);
    EXPECT_TRUE(closer.ends());
}

} // namespace

TEST(ZebReadGate, IsFencedBeforeTheFirstClosing)
{
    EXPECT_EQ(bits(), Fenced);
    EXPECT_TRUE(canEnter());
}

TEST(ZebReadGate, IsPlainAfterAClosingOnLinux)
{
    calmDown();
    ZebReadGate::close();
    ZebReadGate::open();
#ifdef Q_OS_LINUX
    EXPECT_EQ(bits(), 0U);
#else
    EXPECT_EQ(bits(), Fenced);
#endif
    EXPECT_TRUE(canEnter());
}

TEST(ZebReadGate, RefusesEntryWhileItIsClosed)
{
    makePlain();
    for (int mode = 0; mode < 2; ++mode) {
        ZebReadGate::close();
        EXPECT_EQ(bits() & Closed, Closed);
        EXPECT_FALSE(canEnter());
        ZebReadGate::open();
        EXPECT_TRUE(canEnter());
        makeFenced();
    }
}

TEST(ZebReadGate, IsFencedAfterClosingsInARowAndPlainAgainAfterACalmTime)
{
    if (!canBePlain())
        GTEST_SKIP() << "this system has no membarrier";
    makeFenced();
    EXPECT_TRUE(canEnter());
    makePlain();
    EXPECT_EQ(bits(), 0U);
    makeFenced();
    calmDown();
    ZebReadGate::close();
    ZebReadGate::open();
    EXPECT_EQ(bits(), 0U);
}

TEST(ZebReadGate, StaysFencedIfItIsRelaxedTooEarly)
{
    const auto begin = std::chrono::steady_clock::now();
    makeFenced();
    ZebReadGate::relax();
    const quint32 after = bits();
    if (std::chrono::steady_clock::now() - begin > std::chrono::milliseconds(9))
        GTEST_SKIP() << "the scheduler came in between";
    EXPECT_EQ(after, Fenced);
}

TEST(ZebReadGate, DoesNotRelaxWhileItIsClosed)
{
    makeFenced();
    ZebReadGate::close();
    calmDown();
    ZebReadGate::relax();
    EXPECT_EQ(bits(), Closed | Fenced);
    ZebReadGate::open();
}

TEST(ZebReadGate, CloserWaitsForAThreadInsideThePlainGate)
{
    makePlain();
    expectWait();
}

TEST(ZebReadGate, CloserWaitsForAThreadInsideTheFencedGate)
{
    makeFenced();
    expectWait();
}

TEST(ZebReadGate, KeepsSlowUnpinsThroughAllChanges)
{
    EXPECT_FALSE(ZebReadGate::unpinsAreSlow());
    makePlain();
    ZebReadGate::setUnpinsSlow(true);
    EXPECT_TRUE(canEnter());
    EXPECT_TRUE(ZebReadGate::unpinsAreSlow());
    makeFenced();
    EXPECT_TRUE(ZebReadGate::unpinsAreSlow());
    makePlain();
    EXPECT_TRUE(ZebReadGate::unpinsAreSlow());
    ZebReadGate::close();
    ZebReadGate::setUnpinsSlow(false);
    EXPECT_EQ(bits() & Closed, Closed);
    ZebReadGate::open();
    EXPECT_FALSE(ZebReadGate::unpinsAreSlow());
}

TEST(ZebReadGate, ChangesOfSlowUnpinsMeetClosingsInAnyOrder)
{
    std::atomic<bool> mayEnd{false};
    std::atomic<int> changes{0};
    std::thread other([&] {
        for (bool slow = true; !mayEnd.load(); slow = !slow) {
            ZebReadGate::setUnpinsSlow(slow);
            ++changes;
        }
        ZebReadGate::setUnpinsSlow(true);
    });
    for (int turn = 0; turn < 2000 || changes.load() < 2000; ++turn) {
        ZebReadGate::close();
        ASSERT_EQ(bits() & Closed, Closed);
        ZebReadGate::open();
        ASSERT_EQ(bits() & Closed, 0U);
    }
    mayEnd.store(true);
    other.join();
    EXPECT_TRUE(ZebReadGate::unpinsAreSlow());
    ZebReadGate::setUnpinsSlow(false);
}

TEST(ZebReadGate, ACloserInAChildDoesNotWaitForThreadsOfTheParent)
{
    makePlain();
    std::atomic<bool> isInside{false};
    std::atomic<bool> mayLeave{false};
    std::thread thread([&] {
        ZebThreadSlot* const slot = ZebThreadSlot::mine();
        EXPECT_TRUE(ZebReadGate::enter(slot));
        isInside.store(true);
        EXPECT_TRUE(pollUntil([&mayLeave] { return mayLeave.load(); }));
        ZebReadGate::leave(slot);
    });
    ASSERT_TRUE(pollUntil([&isInside] { return isInside.load(); }));
    const pid_t child = ::fork();
    if (child == 0) {
        // A closer that waits is ended by the signal.
        ::alarm(20);
        for (int mode = 0; mode < 2; ++mode) {
            ZebReadGate::close();
            ZebReadGate::open();
        }
        ::_exit(canEnter() ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    mayLeave.store(true);
    thread.join();
}
