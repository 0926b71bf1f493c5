// The self-check as a user meets it. The longest rows are left to the library's own tests.

#include "tools/commands/SelfCheckRows.h"
#include "tools/support/ProgramRunner.h"
#include "tools/support/TemporaryTree.h"

#include <QJsonArray>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

using ::testing::HasSubstr;

TEST(SelfCheckProgram, RunsRowsOnDataOfItsOwn)
{
    const Outcome outcome =
        runTool({"selfcheck", "testPriorityList", "testCompositingTest:1", "finalTests"});
    EXPECT_EQ(outcome.m_Status, 0) << outcome.m_Errors;
    EXPECT_THAT(outcome.m_Output, HasSubstr("testPriorityList"));
    EXPECT_THAT(outcome.m_Output, HasSubstr("testCompositingTest:1 "));
    EXPECT_THAT(outcome.m_Output, HasSubstr("fails by design: the library does not count"));
    EXPECT_THAT(outcome.m_Output, HasSubstr("3 checks: 2 passed, 1 failed by design, 0 failed."));
}

TEST(SelfCheckProgram, ANameWithoutASizeMeansAllSizes)
{
    const TemporaryTree tree;
    ASSERT_EQ(runTool({"sampledata", tree.path("data")}).m_Status, 0);
    const Outcome outcome = runTool(
        {"selfcheck", "--json", "--in-process", "--data", tree.path("data"), "testTextureSet"});
    EXPECT_EQ(outcome.m_Status, 0) << outcome.m_Output << outcome.m_Errors;
    EXPECT_EQ(outcome.number("passed"), 4);
    EXPECT_EQ(outcome.json()[QStringLiteral("rows")].toArray().size(), 4);
}

TEST(SelfCheckProgram, ARowThatFailsSaysItsWords)
{
    const TemporaryTree tree;
    tree.folder("empty");
    const Outcome outcome =
        runTool({"selfcheck", "--data", tree.path("empty"), "testTextureSet:1", "testTileHash"});
    EXPECT_EQ(outcome.m_Status, 1);
    EXPECT_THAT(outcome.m_Output, HasSubstr("FAILED: Cannot find test images to hash"));
    // It fails by design, but not with these words.
    EXPECT_THAT(outcome.m_Output, HasSubstr("FAILED: Cannot find test tiles to hash"));
    EXPECT_THAT(outcome.m_Output, HasSubstr("2 checks: 0 passed, 0 failed by design, 2 failed."));
}

TEST(SelfCheckProgram, AnUnknownNameIsWrongUse)
{
    const Outcome outcome = runTool({"selfcheck", "testNothing"});
    EXPECT_EQ(outcome.m_Status, 2);
    EXPECT_THAT(outcome.m_Errors, HasSubstr("'testNothing' is no check"));
}

TEST(SelfCheckProgram, SampleDataThatCannotBeWrittenIsTold)
{
    const TemporaryTree tree;
    tree.file("file", "in the way");
    const Outcome outcome = runTool({"sampledata", tree.path("file")});
    EXPECT_EQ(outcome.m_Status, 1);
    EXPECT_THAT(outcome.m_Errors, HasSubstr("cannot be written"));
}

TEST(SelfCheckRows, FiveOf41FailByDesign)
{
    int failing = 0;
    for (const SelfCheckRows::Row& row : SelfCheckRows::all())
        failing += row.m_Words != nullptr ? 1 : 0;
    EXPECT_EQ(SelfCheckRows::all().size(), 41U);
    EXPECT_EQ(failing, 5);
    EXPECT_EQ(SelfCheckRows::named("runAllTest").size(), 1U);
    EXPECT_EQ(SelfCheckRows::named("testProcessImage").size(), 4U);
    EXPECT_EQ(SelfCheckRows::named("testProcessImage:10").size(), 1U);
    EXPECT_TRUE(SelfCheckRows::named("").empty());
}

TEST(SelfCheckRows, ARowIsRightOnlyWithItsOwnOutcome)
{
    const SelfCheckRows::Row passing = SelfCheckRows::named("testHashes").front();
    const SelfCheckRows::Row failing = SelfCheckRows::named("finalTests").front();
    EXPECT_TRUE((SelfCheckRows::Outcome{true, "anything"}.isRight(passing)));
    EXPECT_FALSE((SelfCheckRows::Outcome{false, "anything"}.isRight(passing)));
    EXPECT_TRUE((SelfCheckRows::Outcome{false, failing.m_Words}.isRight(failing)));
    EXPECT_FALSE((SelfCheckRows::Outcome{false, "other words"}.isRight(failing)));
    EXPECT_FALSE((SelfCheckRows::Outcome{true, failing.m_Words}.isRight(failing)));
}
