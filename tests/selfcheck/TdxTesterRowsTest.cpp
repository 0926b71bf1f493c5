// Every row of the self-check that takes seconds; the others are in TdxTesterHeavyTest.cpp.

#include "support/SelfCheckRows.h"

namespace {

class TdxTesterRows : public ::testing::TestWithParam<int>
{};

} // namespace

TEST_P(TdxTesterRows, HasItsExpectedOutcome)
{
    SelfCheckRows::expectRow(GetParam());
}

INSTANTIATE_TEST_SUITE_P(SelfCheck, TdxTesterRows,
                         ::testing::ValuesIn(SelfCheckRows::numbers(false)),
                         SelfCheckRows::testName);
