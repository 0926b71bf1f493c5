// The self-check as a user meets it. The longest rows are left to the library's own tests.

#include "support/TemporaryTree.h"
#include "tools/support/ProgramRunner.h"

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
    EXPECT_THAT(outcome.m_Output, HasSubstr("fails by design: "));
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

TEST(SelfCheckProgram, AFailedRowPrintsItsLastLine)
{
    const TemporaryTree tree;
    tree.directory("empty");
    const Outcome outcome =
        runTool({"selfcheck", "--data", tree.path("empty"), "testTextureSet:1", "testTileHash"});
    EXPECT_EQ(outcome.m_Status, 1);
    EXPECT_THAT(outcome.m_Output, HasSubstr("FAILED: Cannot find test images to hash"));
    // It fails by design, but with another line.
    EXPECT_THAT(outcome.m_Output, HasSubstr("FAILED: Cannot find test tiles to hash"));
    EXPECT_THAT(outcome.m_Output, HasSubstr("2 checks: 0 passed, 0 failed by design, 2 failed."));
}

TEST(SelfCheckProgram, AnUnknownNameIsWrongUse)
{
    const Outcome outcome = runTool({"selfcheck", "testNothing"});
    EXPECT_EQ(outcome.m_Status, 2);
    EXPECT_THAT(outcome.m_Errors, HasSubstr("'testNothing' is not a check"));
}

TEST(SelfCheckProgram, SampleDataThatCannotBeWrittenIsAnError)
{
    const TemporaryTree tree;
    tree.file("file", "in the way");
    const Outcome outcome = runTool({"sampledata", tree.path("file")});
    EXPECT_EQ(outcome.m_Status, 1);
    EXPECT_THAT(outcome.m_Errors, HasSubstr("cannot be written"));
}
