#include "tools/cache/CacheWarnings.h"

#include "tools/terminal/SummaryText.h"

#include "tools/support/ErrorLines.h"

#include <gtest/gtest.h>

TEST(CacheWarnings, TheFirstOfAKindHaveLinesAndAllAreCounted)
{
    ErrorLines errors;
    CacheWarnings warnings(errors.report());
    for (int i = 0; i < 1000; ++i)
        warnings.add(CacheWarnings::Unexpected, "path", "is unexpected");
    warnings.add(CacheWarnings::Link, "way", "is a link");
    EXPECT_EQ(warnings.count(CacheWarnings::Unexpected), 1000);
    EXPECT_EQ(warnings.count(CacheWarnings::Link), 1);
    EXPECT_EQ(warnings.count(CacheWarnings::Truncated), 0);
    ASSERT_EQ(errors.lines().size(), 12U);
    EXPECT_EQ(errors.lines()[9], "zebtdx: path: is unexpected");
    EXPECT_EQ(errors.lines()[10], "zebtdx: further warnings of this kind are only counted");
    EXPECT_EQ(errors.lines()[11], "zebtdx: way: is a link");
    EXPECT_EQ(errors.report().count(), 0) << "no errors";
}
