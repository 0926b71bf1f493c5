// Whether the gate of lock-free reads keeps threads that enter and a thread that closes apart, on
// the processor at hand. Threads enter and leave as fast as they can, while another one closes and
// opens. Each form of the gate must show no violation, and each part of it must be needed: without
// it, a violation must turn up.

#include "hash/ZebReadGate.h"

#include <QElapsedTimer>
#include <QThread>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <thread>
#include <vector>

#ifdef Q_OS_LINUX
#include <sched.h>
#endif

namespace {

using std::chrono::microseconds;

// How long a form runs that must show no violation.
constexpr qint64 s_CleanMs = 400;

// How long to wait for a violation that must turn up. On two free cores it takes milliseconds.
constexpr qint64 s_BrokenMs = 10000;

constexpr microseconds s_AlwaysPlain{-1};
constexpr microseconds s_AlwaysFenced{3600LL * 1000 * 1000};

// How often a thread looks for a violation while it is inside.
constexpr int s_Looks = 2000;

enum class Form
{
    Plain,
    Fenced,
    Changing
};

// Memory that fits into no cache. A thread that has just written to some places of it waits for
// them, and its mark waits in the store buffer while its next load is already done.
constexpr std::size_t s_PageBytes = 4096;
constexpr std::size_t s_PageCount = 16384;
constexpr int s_Stores = 30;
std::vector<std::atomic<unsigned char>> s_Memory(s_PageBytes* s_PageCount);

quint64 scrambled(quint64 number)
{
    return (number * Q_UINT64_C(6364136223846793005) + Q_UINT64_C(1442695040888963407)) >> 20;
}

void fillStoreBuffer(quint64 number)
{
    for (int store = 0; store < s_Stores; ++store) {
        number = scrambled(number + 1);
        const std::size_t page = number % s_PageCount;
        s_Memory[page * s_PageBytes + number % 1024].store(1, std::memory_order_relaxed);
    }
}

void pauseFor(quint64 looks)
{
    for (quint64 look = 0; look < looks; ++look)
        s_Memory[0].load(std::memory_order_relaxed);
}

// Spins, and lets the other thread run if there is one processor for both.
template <typename Condition>
void spinUntil(Condition condition)
{
    for (unsigned turn = 1; !condition(); ++turn) {
        if (turn % 256 == 0)
            std::this_thread::yield();
    }
}

// Puts the calling thread on the processor core of this number among those that the process may
// use. The scheduler likes to run two threads that wait for each other on one core, where no
// violation can show.
void moveToCore(int number)
{
#ifdef Q_OS_LINUX
    cpu_set_t allowed;
    if (::sched_getaffinity(0, sizeof allowed, &allowed) != 0)
        return;
    for (int core = 0; core < CPU_SETSIZE; ++core) {
        if (!CPU_ISSET(core, &allowed) || number-- > 0)
            continue;
        cpu_set_t own;
        CPU_ZERO(&own);
        CPU_SET(core, &own);
        ::sched_setaffinity(0, sizeof own, &own);
        return;
    }
#else
    Q_UNUSED(number)
#endif
}

// What the two sides share.
struct Watch
{
    alignas(64) std::atomic<bool> m_IsClosed{false};
    alignas(64) std::atomic<quint64> m_Entries{0};
    alignas(64) std::atomic<quint64> m_Violations{0};
    std::atomic<bool> m_MayEnd{false};
    quint64 m_Closings = 0;
    // Not atomic: ThreadSanitizer then checks that the gate also orders memory. Only used where the
    // gate is expected to hold.
    bool m_UsesPlainData = false;
    quint64 m_PlainData = 0;
};

// Enters and leaves. Inside, the closer must not be between its closing and its opening.
void enterAndLeave(Watch& watch)
{
    ZebThreadSlot* const slot = ZebThreadSlot::mine();
    quint64 entries = 0;
    while (!watch.m_MayEnd.load(std::memory_order_relaxed)) {
        fillStoreBuffer(entries);
        if (!ZebReadGate::enter(slot))
            continue;
        const quint64 before = watch.m_UsesPlainData ? watch.m_PlainData : 0;
        bool isViolated = false;
        for (int look = 0; look < s_Looks; ++look)
            isViolated = watch.m_IsClosed.load(std::memory_order_relaxed) || isViolated;
        const quint64 after = watch.m_UsesPlainData ? watch.m_PlainData : 0;
        if (isViolated || before != after)
            ++watch.m_Violations;
        ZebReadGate::leave(slot);
        watch.m_Entries.store(++entries, std::memory_order_relaxed);
    }
}

// Closes the gate, stays in there for a while, and opens it in this form.
void closeOnce(Watch& watch, bool opensPlain)
{
    ZebReadGate::setCalmTime(opensPlain ? s_AlwaysPlain : s_AlwaysFenced);
    ZebReadGate::close();
    watch.m_IsClosed.store(true, std::memory_order_relaxed);
    if (watch.m_UsesPlainData)
        ++watch.m_PlainData;
    pauseFor(s_Looks);
    if (++watch.m_Closings % 4 == 0)
        std::this_thread::yield();
    watch.m_IsClosed.store(false, std::memory_order_relaxed);
    ZebReadGate::open();
}

// Two threads in no fixed relation, for `form`.
template <typename Condition>
void closeAtAnyMoment(Watch& watch, Form form, Condition isDone)
{
    while (!isDone()) {
        closeOnce(watch, form == Form::Plain || (form == Form::Changing && watch.m_Closings % 2));
        const quint64 entries = watch.m_Entries.load();
        spinUntil([&] { return watch.m_Entries.load() != entries || isDone(); });
        pauseFor(scrambled(watch.m_Closings) % 4096);
    }
}

// A thread that has found the gate plain and waits before its mark; then both sides begin together.
std::atomic<quint64> s_Arrived{0};
std::atomic<quint64> s_Began{0};
std::atomic<bool> s_Meets{false};

void meetBeforeMark(ZebTestPoint point)
{
    if (point != ZebTestPoint::GateFoundPlain || !s_Meets.load())
        return;
    const quint64 round = s_Arrived.load() + 1;
    s_Arrived.store(round);
    spinUntil([round] { return s_Began.load() >= round || !s_Meets.load(); });
    fillStoreBuffer(round);
}

// Closes while another thread is about to mark its slot. `form` is Plain, or Changing if the gate
// becomes fenced after that thread has found it plain.
template <typename Condition>
void closeBesideMark(Watch& watch, Form form, Condition isDone)
{
    s_Meets.store(true);
    closeOnce(watch, true);
    for (quint64 round = 1; !isDone(); ++round) {
        spinUntil([&] { return s_Arrived.load() == round || isDone(); });
        if (form == Form::Changing)
            closeOnce(watch, false);
        s_Began.store(round);
        pauseFor(scrambled(round) % 4096);
        closeOnce(watch, true);
    }
    s_Meets.store(false);
}

template <typename Closer>
void run(Watch& watch, qint64 longestMs, bool endsAtViolation, Closer closer)
{
    QElapsedTimer timer;
    timer.start();
    std::thread closing([&] {
        moveToCore(0);
        closer([&] {
            return timer.elapsed() > longestMs || (endsAtViolation && watch.m_Violations.load());
        });
        watch.m_MayEnd.store(true);
    });
    std::thread entering([&watch] {
        moveToCore(1);
        enterAndLeave(watch);
    });
    closing.join();
    entering.join();
    std::printf("%lld ms, %llu closings, %llu entries, %llu violations\n",
                static_cast<long long>(timer.elapsed()),
                static_cast<unsigned long long>(watch.m_Closings),
                static_cast<unsigned long long>(watch.m_Entries.load()),
                static_cast<unsigned long long>(watch.m_Violations.load()));
}

// Whether the system has what a plain gate needs.
bool canBePlain()
{
    ZebReadGate::setCalmTime(s_AlwaysPlain);
    ZebReadGate::close();
    ZebReadGate::open();
    return ZebReadGate::s_Word.m_Bits.load() == 0;
}

class GateLitmus : public ::testing::Test
{
protected:
    void SetUp() override
    {
        s_Arrived.store(0);
        s_Began.store(0);
        ZebTestPoints::s_Hook.store(&meetBeforeMark);
    }
    void TearDown() override
    {
        ZebTestPoints::s_Hook.store(nullptr);
        ZebTestPoints::s_GuardsOff.store(0);
    }

    static void switchOff(ZebTestGuard guard)
    {
        ZebTestPoints::s_GuardsOff.store(1U << static_cast<unsigned>(guard));
    }

    // Runs the gate as it is.
    template <typename Closer>
    void expectNoViolation(Closer closer)
    {
        Watch watch;
        watch.m_UsesPlainData = true;
        run(watch, s_CleanMs, false, [&](auto isDone) { closer(watch, isDone); });
        EXPECT_EQ(watch.m_Violations.load(), 0U);
        // Both sides have run.
        EXPECT_GT(watch.m_Closings, 10U);
        EXPECT_GT(watch.m_Entries.load(), 10U);
    }

    // Runs the gate without one of its parts until a violation turns up.
    template <typename Closer>
    void expectViolation(ZebTestGuard guard, Closer closer)
    {
        Watch watch;
        switchOff(guard);
        run(watch, s_BrokenMs, true, [&](auto isDone) { closer(watch, isDone); });
        if (watch.m_Violations.load() == 0 && QThread::idealThreadCount() < 2)
            GTEST_SKIP() << "one processor core shows no violation";
#ifdef __SANITIZE_ADDRESS__
        // Its checks between the two accesses leave the store buffer time to drain.
        if (watch.m_Violations.load() == 0)
            GTEST_SKIP() << "the sanitizer hides the violation";
#endif
        EXPECT_GT(watch.m_Violations.load(), 0U);
    }
};

class PlainGateLitmus : public GateLitmus
{
protected:
    void SetUp() override
    {
        if (!canBePlain())
            GTEST_SKIP() << "this system has no membarrier";
        GateLitmus::SetUp();
    }
};

auto closingAtAnyMoment(Form form)
{
    return [form](Watch& watch, auto isDone) {
        closeAtAnyMoment(watch, form, isDone);
    };
}

auto closingBesideMark(Form form)
{
    return [form](Watch& watch, auto isDone) {
        closeBesideMark(watch, form, isDone);
    };
}

} // namespace

TEST_F(GateLitmus, AFencedGateExcludes)
{
    expectNoViolation(closingAtAnyMoment(Form::Fenced));
}

TEST_F(PlainGateLitmus, Excludes)
{
    expectNoViolation(closingAtAnyMoment(Form::Plain));
}

TEST_F(PlainGateLitmus, ExcludesWhileItsFormChanges)
{
    expectNoViolation(closingAtAnyMoment(Form::Changing));
}

TEST_F(PlainGateLitmus, ExcludesAThreadThatMarksItsSlotMeanwhile)
{
    expectNoViolation(closingBesideMark(Form::Plain));
}

TEST_F(PlainGateLitmus, ExcludesAThreadThatFoundItPlainBeforeItWasFenced)
{
    expectNoViolation(closingBesideMark(Form::Changing));
}

TEST_F(PlainGateLitmus, NeedsTheFenceOfTheCloser)
{
    expectViolation(ZebTestGuard::GateFencesOthers, closingBesideMark(Form::Plain));
}

TEST_F(PlainGateLitmus, AThreadThatFoundItPlainMustSeeThatItIsFenced)
{
    expectViolation(ZebTestGuard::GateFencedSeen, closingBesideMark(Form::Changing));
}

TEST_F(GateLitmus, AThreadThatEntersMustSeeAClosedGate)
{
    expectViolation(ZebTestGuard::GateClosedSeen, closingAtAnyMoment(Form::Fenced));
}

TEST_F(GateLitmus, ACloserMustWaitForThreadsInside)
{
    expectViolation(ZebTestGuard::GateWaitsForSlots, closingAtAnyMoment(Form::Fenced));
}
