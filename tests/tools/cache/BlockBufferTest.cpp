#include "tools/cache/BlockBuffer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <new>

TEST(BlockBuffer, KeepsMemoryBelowTheBound)
{
    BlockBuffer buffer(10000);
    unsigned char* const first = buffer.take(10);
    std::memset(first, 1, 10);
    buffer.leave();
    EXPECT_EQ(buffer.take(10000), first);
    EXPECT_EQ(first[9], 1);
    buffer.leave();
    EXPECT_EQ(buffer.take(0), first);
}

TEST(BlockBuffer, GivesLargerMemoryBackAtOnce)
{
    BlockBuffer buffer(1000);
    constexpr qint64 large = 64LL * 1024 * 1024;
    std::memset(buffer.take(large), 7, large);
    buffer.leave();
    // New memory of the system is empty.
    const unsigned char* const again = buffer.take(large);
    EXPECT_EQ(again[0], 0);
    EXPECT_EQ(again[large - 1], 0);
}

TEST(BlockBuffer, MemoryThatCannotBeHadIsBadAlloc)
{
    BlockBuffer buffer(1000);
    EXPECT_THROW(buffer.take(1LL << 60), std::bad_alloc);
    buffer.take(10)[9] = 1;
}
