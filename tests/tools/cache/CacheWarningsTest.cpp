#include "tools/cache/CacheWarnings.h"

#include "tools/terminal/SummaryText.h"

#include "tools/support/ErrorLines.h"

#include <gtest/gtest.h>

TEST(CacheWarnings, TheFirstOfAKindHaveLinesAndAllAreCounted)
{
    ErrorLines errors;
    CacheWarnings remarks(errors.report());
    for (int i = 0; i < 1000; ++i)
        remarks.add(CacheWarnings::Foreign, "path", "is foreign");
    remarks.add(CacheWarnings::Link, "way", "is a link");
    EXPECT_EQ(remarks.count(CacheWarnings::Foreign), 1000);
    EXPECT_EQ(remarks.count(CacheWarnings::Link), 1);
    EXPECT_EQ(remarks.count(CacheWarnings::Stump), 0);
    ASSERT_EQ(errors.lines().size(), 12U);
    EXPECT_EQ(errors.lines()[9], "zebtdx: path: is foreign");
    EXPECT_EQ(errors.lines()[10], "zebtdx: more of that kind are only counted");
    EXPECT_EQ(errors.lines()[11], "zebtdx: way: is a link");
    EXPECT_EQ(errors.report().count(), 0) << "no errors";
}
