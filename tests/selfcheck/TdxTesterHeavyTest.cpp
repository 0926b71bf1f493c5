// The rows of the self-check that take minutes, and the whole run. The test presets exclude them.

#include "support/NoBlocks.h"
#include "support/SelfCheckRows.h"

namespace {

class TdxTesterHeavy : public ::testing::TestWithParam<int>
{};

} // namespace

TEST_P(TdxTesterHeavy, HasItsExpectedOutcome)
{
    SelfCheckRows::expectRow(GetParam());
}

INSTANTIATE_TEST_SUITE_P(SelfCheck, TdxTesterHeavy,
                         ::testing::ValuesIn(SelfCheckRows::numbers(true)),
                         SelfCheckRows::testName);

TEST(TdxTesterHeavyRun, TheRunEndsAtTheReleaseOfBlocks)
{
    const SampleFolder folder;
    TdxTester tester;
    const MessageCapture messages;
    EXPECT_FALSE(tester.runAllTest(1));
    EXPECT_EQ(messages.debugLines().first(), QStringLiteral("[ -- ] Starting All Tests "));
    EXPECT_EQ(messages.debugLines().last(),
              QLatin1String(ZebSelfCheckTable::wholeRun().m_FailureLine));
    EXPECT_EQ(messages.count(QStringLiteral("Run 0/1")), 0);
    EXPECT_EQ(messages.debugLines().filter(QStringLiteral("Ran In ")).size(), 17);
    EXPECT_TRUE(messages.contains(QStringLiteral("[ OK ] Passed Datablock Data Stress Test")));
    // One check switches the log on and never off, so the lines of the image check show.
    EXPECT_FALSE(
        messages.debugLines().filter(QStringLiteral("[ LOG ] /Earth.png Count at")).isEmpty());
}

TEST(TdxTesterHeavyRun, TheReleaseOfBlocksPassesWhenNoBlockIsLeft)
{
    const SampleFolder folder(0);
    TdxTester tester;
    const MessageCapture messages;
    const NoBlocks noBlocks;
    EXPECT_TRUE(tester.testDataBlockRelease());
    EXPECT_EQ(messages.debugLines().last(),
              QStringLiteral("[ OK ] Passed Datablock Release Testing"));
}
