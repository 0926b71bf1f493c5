#include "tools/Remarks.h"

#include "tools/SummaryText.h"

#include "ErrorLines.h"

#include <gtest/gtest.h>

TEST(Remarks, TheFirstOfAKindHaveLinesAndAllAreCounted)
{
    ErrorLines errors;
    Remarks remarks(errors.report());
    for (int i = 0; i < 1000; ++i)
        remarks.add(Remarks::Foreign, "path", "is foreign");
    remarks.add(Remarks::Link, "way", "is a link");
    EXPECT_EQ(remarks.count(Remarks::Foreign), 1000);
    EXPECT_EQ(remarks.count(Remarks::Link), 1);
    EXPECT_EQ(remarks.count(Remarks::Stump), 0);
    ASSERT_EQ(errors.lines().size(), 12U);
    EXPECT_EQ(errors.lines()[9], "zebtdx: path: is foreign");
    EXPECT_EQ(errors.lines()[10], "zebtdx: more of that kind are only counted");
    EXPECT_EQ(errors.lines()[11], "zebtdx: way: is a link");
    EXPECT_EQ(errors.report().count(), 0) << "no errors";
}
