#include "tools/terminal/TimeText.h"

#include <gtest/gtest.h>

TEST(TimeText, GoesByThePaceUntilNow)
{
    EXPECT_EQ(TimeText::left(50, 100, 42000), "0:42 left");
    EXPECT_EQ(TimeText::left(1, 3723 + 1, 1000), "1:02:03 left");
    EXPECT_EQ(TimeText::left(1, 61, 1000), "1:00 left");
    EXPECT_EQ(TimeText::left(100, 100, 1000), "0:00 left");
}

TEST(TimeText, SaysNothingBeforeItKnows)
{
    EXPECT_EQ(TimeText::left(0, 100, 10000), "");
    EXPECT_EQ(TimeText::left(50, 100, 100), "");
    EXPECT_EQ(TimeText::left(1, 1LL << 60, 1000), "");
}
