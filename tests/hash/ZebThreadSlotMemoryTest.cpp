// Slots when there is no memory for them. The program has an operator new of its own, by which the
// slots are allocated.

#include "hash/ZebThreadSlot.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <thread>

namespace {

std::atomic<bool> s_Fails{false};
std::atomic<int> s_Failures{0};

} // namespace

void* operator new(std::size_t bytes, std::align_val_t alignment, const std::nothrow_t&) noexcept
{
    if (s_Fails.load()) {
        ++s_Failures;
        return nullptr;
    }
    return std::aligned_alloc(static_cast<std::size_t>(alignment), bytes);
}

TEST(ZebThreadSlot, AThreadWithoutMemoryHasNoSlotAndGetsOneLater)
{
    s_Fails.store(true);
    std::thread([] {
        EXPECT_EQ(ZebThreadSlot::mine(), nullptr);
        EXPECT_EQ(ZebThreadSlot::mine(), nullptr);
        s_Fails.store(false);
        EXPECT_NE(ZebThreadSlot::mine(), nullptr);
    }).join();
    EXPECT_EQ(s_Failures.load(), 2);
}
