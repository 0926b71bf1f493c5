#include "hash/ZebThreadSlot.h"

#include "support/RunTogether.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <set>
#include <thread>
#include <vector>

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::vector<ZebThreadSlot*> allSlots()
{
    std::vector<ZebThreadSlot*> slots;
    for (ZebThreadSlot* slot = ZebThreadSlot::first(); slot != nullptr; slot = slot->next())
        slots.push_back(slot);
    return slots;
}

quint64 listedOfAll()
{
    quint64 sum = 0;
    for (const ZebThreadSlot* const slot : allSlots())
        sum += slot->m_Listed.load();
    return sum;
}

bool isInWalk(ZebThreadSlot* slot)
{
    const std::vector<ZebThreadSlot*> slots = allSlots();
    return std::count(slots.begin(), slots.end(), slot) == 1;
}

// What mine() returned in the destructor of a thread-local object.
ZebThreadSlot* s_SlotInDestructor = nullptr;

struct LateUser
{
    ~LateUser() { s_SlotInDestructor = ZebThreadSlot::mine(); }
    bool m_IsUsed = false;
};

// Calls of the destructor of a key, and what mine() returned in the last of them.
constexpr int s_KeyRounds = 3;
pthread_key_t s_Key;
int s_KeyCalls = 0;
ZebThreadSlot* s_SlotInKey = nullptr;

void callAgain(void* value)
{
    s_SlotInKey = ZebThreadSlot::mine();
    if (++s_KeyCalls < s_KeyRounds)
        ::pthread_setspecific(s_Key, value);
}

// Runs `work` in a forked child and returns what it returned.
template <typename Work>
int inChild(Work work)
{
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(work());
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

TEST(ZebThreadSlot, AThreadKeepsItsSlot)
{
    ZebThreadSlot* const slot = ZebThreadSlot::mine();
    ASSERT_NE(slot, nullptr);
    EXPECT_EQ(ZebThreadSlot::mine(), slot);
    EXPECT_TRUE(isInWalk(slot));
}

TEST(ZebThreadSlot, FillsOneCacheLine)
{
    ZebThreadSlot* const slot = ZebThreadSlot::mine();
    EXPECT_EQ(reinterpret_cast<std::size_t>(slot) % 64, 0U);
    EXPECT_EQ(sizeof(ZebThreadSlot), 64U);
}

TEST(ZebThreadSlot, ThreadsThatRunTogetherHaveDifferentSlots)
{
    constexpr int threadCount = 8;
    std::vector<ZebThreadSlot*> slots(threadCount);
    std::atomic<int> missing{threadCount};
    runTogether(threadCount, [&](int number) {
        slots[static_cast<std::size_t>(number)] = ZebThreadSlot::mine();
        --missing;
        // No thread ends before all have their slots.
        pollUntil([&missing] { return missing.load() == 0; });
    });
    for (ZebThreadSlot* const slot : slots)
        EXPECT_TRUE(isInWalk(slot));
    EXPECT_EQ(std::set<ZebThreadSlot*>(slots.begin(), slots.end()).size(), slots.size());
}

TEST(ZebThreadSlot, ALaterThreadTakesOverTheSlotOfAnEndedOne)
{
    ZebThreadSlot* former = nullptr;
    std::thread([&former] {
        former = ZebThreadSlot::mine();
        former->m_Listed.store(7);
        former->m_Unlisted.store(5);
        former->m_References.store(-3);
        former->m_Pushes = 11;
    }).join();
    std::thread([former] {
        ZebThreadSlot* const slot = ZebThreadSlot::mine();
        EXPECT_EQ(slot, former);
        EXPECT_EQ(slot->m_Listed.load(), 7U);
        EXPECT_EQ(slot->m_Unlisted.load(), 5U);
        EXPECT_EQ(slot->m_References.load(), -3);
        EXPECT_EQ(slot->m_Pushes, 11U);
    }).join();
}

TEST(ZebThreadSlot, ThreadsThatComeAndEndUseFewSlots)
{
    constexpr int threadCount = 4;
    const quint64 before = listedOfAll();
    runTogether(threadCount, [](int) {
        for (int turn = 0; turn < 100; ++turn) {
            std::thread([] {
                ZebThreadSlot* const slot = ZebThreadSlot::mine();
                // A slot with two owners would lose an increment.
                for (int step = 0; step < 1000; ++step)
                    slot->m_Listed.store(slot->m_Listed.load(std::memory_order_relaxed) + 1,
                                         std::memory_order_relaxed);
            }).join();
        }
    });
    EXPECT_EQ(listedOfAll() - before, 4U * 100U * 1000U);
    // The outer threads take no slot. Other tests of the process may have made up to 9.
    EXPECT_LE(allSlots().size(), 9U + threadCount);
}

TEST(ZebThreadSlot, DestructorsOfThreadLocalObjectsFindTheSlot)
{
    ZebThreadSlot* slot = nullptr;
    std::thread([&slot] {
        thread_local LateUser user;
        user.m_IsUsed = true;
        slot = ZebThreadSlot::mine();
    }).join();
    ASSERT_NE(slot, nullptr);
    EXPECT_EQ(s_SlotInDestructor, slot);
}

TEST(ZebThreadSlot, AThreadThatHasGivenBackItsSlotGetsNoOther)
{
    ASSERT_EQ(::pthread_key_create(&s_Key, &callAgain), 0);
    std::thread([] {
        EXPECT_NE(ZebThreadSlot::mine(), nullptr);
        ::pthread_setspecific(s_Key, &s_Key);
    }).join();
    // Every key has been destroyed once before any is destroyed for the second time.
    EXPECT_EQ(s_KeyCalls, s_KeyRounds);
    EXPECT_EQ(s_SlotInKey, nullptr);
    ::pthread_key_delete(s_Key);
}

TEST(ZebThreadSlot, AChildForgetsThatThreadsOfItsParentWereInside)
{
    ZebThreadSlot* const own = ZebThreadSlot::mine();
    std::atomic<ZebThreadSlot*> inside{nullptr};
    std::atomic<bool> mayEnd{false};
    std::thread thread([&] {
        ZebThreadSlot* const slot = ZebThreadSlot::mine();
        slot->m_Inside.store(1);
        inside.store(slot);
        pollUntil([&mayEnd] { return mayEnd.load(); });
        slot->m_Inside.store(0);
    });
    ASSERT_TRUE(pollUntil([&inside] { return inside.load() != nullptr; }));
    EXPECT_EQ(inChild([&] {
                  const bool isKept = ZebThreadSlot::mine() == own;
                  return isKept && inside.load()->m_Inside.load() == 0 ? 0 : 1;
              }),
              0);
    EXPECT_EQ(inside.load()->m_Inside.load(), 1U);
    mayEnd.store(true);
    thread.join();
}

TEST(ZebThreadSlot, AThreadOfAChildGetsASlot)
{
    EXPECT_EQ(inChild([] {
                  const ZebThreadSlot* const own = ZebThreadSlot::mine();
                  ZebThreadSlot* slot = nullptr;
                  std::thread([&slot] { slot = ZebThreadSlot::mine(); }).join();
                  return slot != nullptr && slot != own ? 0 : 1;
              }),
              0);
}
