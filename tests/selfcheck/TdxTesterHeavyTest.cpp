// The rows of the self-check that take longest, and the whole run. Left out by the presets.

#include "support/NoBlocks.h"
#include "support/SelfCheckRows.h"

namespace {

const char* const s_MultiFirst = "[ -- ] Starting Datablock Multithreaded Test";
const char* const s_MultiLast = "[ OK ] Passed Datablock Multithreaded Test";

const ExpectedRow s_Rows[] = {
    {12, "testDataBlockManagerMultiThread", 1, 0, s_MultiFirst, s_MultiLast, true},
    {13, "testDataBlockManagerMultiThread", 10, 0, s_MultiFirst, s_MultiLast, true},
    {14, "testDataBlockManagerMultiThread", 100, 0, s_MultiFirst, s_MultiLast, true},
    {15, "testDataBlockManagerMultiThread", 1000, 0, s_MultiFirst, s_MultiLast, true},
    {18, "testDataBlockRelease", 0, 0, "[ -- ] Starting Datablock Release Testing",
     "Block Count is not zero it is -1", false},
    {19, "testThreadedIo", 0, 0, "[ -- ] Starting Test Threaded IO ",
     "After Initial Block count is not zero it is -1", false},
};

class TdxTesterHeavy : public ::testing::TestWithParam<ExpectedRow>
{};

} // namespace

TEST_P(TdxTesterHeavy, ComesOutAsItMust)
{
    expectRow(GetParam());
}

INSTANTIATE_TEST_SUITE_P(SelfCheck, TdxTesterHeavy, ::testing::ValuesIn(s_Rows), rowTestName);

TEST(TdxTesterHeavyRun, AllRowsEndAtTheReleaseOfBlocks)
{
    const SampleFolder folder;
    TdxTester tester;
    const MessageCapture messages;
    EXPECT_FALSE(tester.runAllTest(1));
    EXPECT_EQ(messages.debugLines().first(), QStringLiteral("[ -- ] Starting All Tests "));
    EXPECT_EQ(messages.debugLines().last(),
              QStringLiteral("[!!] Failed testDataBlockRelease aborting"));
    EXPECT_EQ(messages.count(QStringLiteral("Run 0/1")), 0);
    EXPECT_EQ(messages.debugLines().filter(QStringLiteral("Ran In ")).size(), 17);
    EXPECT_TRUE(messages.contains(QStringLiteral("[ OK ] Passed Datablock Data Stress Test")));
    // Switched on by one check, and never off: the image check's lines show.
    EXPECT_FALSE(
        messages.debugLines().filter(QStringLiteral("[ LOG ] /Earth.png Count at")).isEmpty());
}

TEST(TdxTesterHeavyRun, TheReleaseOfBlocksPassesWhereNoBlockIsLeft)
{
    const SampleFolder folder(0);
    TdxTester tester;
    const MessageCapture messages;
    const NoBlocks noBlocks;
    EXPECT_TRUE(tester.testDataBlockRelease());
    EXPECT_EQ(messages.debugLines().last(),
              QStringLiteral("[ OK ] Passed Datablock Release Testing"));
}
