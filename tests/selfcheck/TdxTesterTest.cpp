#include "selfcheck/TdxTester.h"

#include "hash/ZebDataHash.h"
#include "hash/ZebHashManager.h"
#include "manager/ZebDataBlockManager.h"
#include "selfcheck/ZebSelfCheck.h"
#include "selfcheck/ZebSelfCheckTable.h"
#include "support/MessageCapture.h"
#include "support/NoBlocks.h"

#include <QDir>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

// A derived class has access to the protected members.
class OpenTester : public TdxTester
{
public:
    static void setLogging(bool on) { m_Logging = on; }
    static bool isLogging() { return m_Logging; }
    static QStringList folders()
    {
        return {m_TestDataDirectory, m_TestTilesDirectory, m_TestImagesDirectory,
                m_TextureTestDirectory, m_OutDirectory};
    }
};

ZebSelfCheckTable::Row row(const char* name)
{
    return ZebSelfCheckTable::named(name).first();
}

std::string text(const QStringList& lines)
{
    return lines.join('\n').toStdString();
}

std::string withoutTimes(const QStringList& lines)
{
    QStringList result;
    for (const QString& line : lines)
        result.append(line.startsWith(QStringLiteral("Ran ")) ? line.section(' ', 0, 1) : line);
    return text(result);
}

} // namespace

TEST(TdxTester, TheFoldersFollowFromTheDataFolderAndNoneIsCreated)
{
    const QTemporaryDir top;
    const QString folder = top.path() + QStringLiteral("/data");
    OpenTester tester;
    tester.setTestDataDirectory(folder);
    const QStringList expected = {
        folder, folder + QStringLiteral("/TestTiles"), folder + QStringLiteral("/TestImages"),
        folder + QStringLiteral("/TextureTest"), folder + QStringLiteral("/out")};
    EXPECT_EQ(OpenTester::folders(), expected);
    EXPECT_FALSE(QDir(folder).exists());
}

TEST(TdxTester, AssignmentChangesNothing)
{
    OpenTester first;
    OpenTester second;
    first.setTestDataDirectory(QStringLiteral("somewhere"));
    OpenTester::setLogging(true);
    first = second;
    first = std::move(second);
    EXPECT_TRUE(OpenTester::isLogging());
    EXPECT_EQ(OpenTester::folders().first(), QStringLiteral("somewhere"));
    OpenTester::setLogging(false);
}

TEST(TdxTester, ANewTesterSwitchesTheLogOff)
{
    OpenTester::setLogging(true);
    const OpenTester tester;
    EXPECT_FALSE(OpenTester::isLogging());
}

TEST(TdxTester, TheLogIsSilentUntilItIsSwitchedOn)
{
    const OpenTester tester;
    const MessageCapture messages;
    TdxTester::tdxLog("number %d", 1);
    EXPECT_TRUE(messages.messages().isEmpty());
    OpenTester::setLogging(true);
    TdxTester::tdxLog("number %d of %s", 2, "two");
    OpenTester::setLogging(false);
    EXPECT_EQ(messages.debugLines(), QStringList{QStringLiteral("[ LOG ] number 2 of two")});
    EXPECT_FALSE(messages.messages().first().m_HasContext);
}

TEST(TdxTester, ALogLineIsTruncatedToTheBuffer)
{
    const OpenTester tester;
    OpenTester::setLogging(true);
    const MessageCapture messages;
    for (const int length : {2046, 2047, 2048, 10000})
        TdxTester::tdxLog("%s", std::string(static_cast<size_t>(length), 'x').c_str());
    OpenTester::setLogging(false);
    const QString prefix = QStringLiteral("[ LOG ] ");
    std::vector<int> lengths;
    for (const QString& line : messages.debugLines()) {
        EXPECT_TRUE(line.startsWith(prefix));
        lengths.push_back(line.size() - prefix.size());
    }
    EXPECT_EQ(lengths, (std::vector<int>{2046, 2047, 2047, 2047}));
}

TEST(TdxTesterRun, WithoutRunsNothingIsCheckedAndTheResultIsTrue)
{
    OpenTester tester;
    OpenTester::setLogging(true);
    const MessageCapture messages;
    EXPECT_TRUE(tester.runAllTest(0));
    EXPECT_TRUE(tester.runAllTest(-3));
    EXPECT_FALSE(OpenTester::isLogging());
    const QStringList once = {QStringLiteral("[ -- ] Starting All Tests "),
                              QStringLiteral("Ran All"),
                              QStringLiteral("[ OK ] Passed All Tests ")};
    EXPECT_EQ(withoutTimes(messages.debugLines()), text(once + once));
}

TEST(TdxTesterRun, EachRowRunsTheGivenNumberOfTimesBeforeTheNext)
{
    // The first use of the store logs lines of its own.
    ZebDataBlockManager::instance();
    TdxTester tester;
    const MessageCapture messages;
    EXPECT_TRUE(
        ZebSelfCheckTable::run(tester, {row("testPriorityList"), row("testSmartPointers")}, 2));
    QStringList expected = {QStringLiteral("[ -- ] Starting All Tests ")};
    const QStringList first = {QStringLiteral("[ -- ] Starting Priority Queue Test"),
                               QStringLiteral("[ OK ] Passed Priority Queue Test"),
                               QStringLiteral("Ran In")};
    const QStringList second = {QStringLiteral("[ -- ] Start Smart Pointer Test"),
                                QStringLiteral("[ OK ] Smart Pointer Test Passed"),
                                QStringLiteral("Ran In")};
    for (const QStringList& lines : {first, second})
        expected += QStringList{QStringLiteral("Run 0/2")} + lines +
                    QStringList{QStringLiteral("Run 1/2")} + lines;
    expected += QStringList{QStringLiteral("Ran All"), QStringLiteral("[ OK ] Passed All Tests ")};
    EXPECT_EQ(withoutTimes(messages.debugLines()), text(expected));
}

TEST(TdxTesterRun, TheFirstFailureEndsTheRunAndPrintsTheName)
{
    TdxTester tester;
    const MessageCapture messages;
    EXPECT_FALSE(ZebSelfCheckTable::run(
        tester, {row("testPriorityList"), row("finalTests"), row("testSmartPointers")}, 1));
    EXPECT_EQ(messages.debugLines().last(), QStringLiteral("[!!] Failed finalTests aborting"));
    EXPECT_FALSE(messages.contains(QStringLiteral("[ -- ] Start Smart Pointer Test")));
    EXPECT_EQ(messages.debugLines().filter(QStringLiteral("Ran In")).size(), 1);
    EXPECT_TRUE(messages.debugLines().filter(QStringLiteral("Run ")).isEmpty());
}

// The names and their order are part of the interface, so this list is written out on purpose and
// does not come from the table.
TEST(TdxTesterTable, TheRowsAreTheseInThisOrder)
{
    std::vector<std::string> titles;
    for (const ZebSelfCheckTable::Row& each : ZebSelfCheckTable::rows())
        titles.push_back(each.title());
    const std::vector<std::string> expected = {"testPriorityList",
                                               "testSmartPointers",
                                               "testHashes",
                                               "testHashManagerSingleThreaded",
                                               "testHashManagerMultiThreaded",
                                               "testDataBlock",
                                               "testfilenameBuilder",
                                               "testDataBlockCompression",
                                               "testUserDataSystem",
                                               "testDataBlockManagerBasic",
                                               "testDataBlockManagerSingleThread",
                                               "testDataBlockManagerMultiThread:1",
                                               "testDataBlockManagerMultiThread:10",
                                               "testDataBlockManagerMultiThread:100",
                                               "testDataBlockManagerMultiThread:1000",
                                               "testDataBlockManagerImagesMultiThreaded",
                                               "testDataBlockManagerDataStress",
                                               "testDataBlockRelease",
                                               "testThreadedIo",
                                               "testTileHash",
                                               "testProcessImage:1",
                                               "testProcessImage:10",
                                               "testProcessImage:100",
                                               "testProcessImage:1000",
                                               "testTextureSet:1",
                                               "testTextureSet:10",
                                               "testTextureSet:100",
                                               "testTextureSet:1000",
                                               "testDataBlockLoadedTests",
                                               "testSubCache",
                                               "testHashingJobs",
                                               "testHashingCreate",
                                               "testGroupBlocks",
                                               "testDontCacheTest",
                                               "testGarbageCollection",
                                               "testCompositingTest:1",
                                               "testCompositingTest:10",
                                               "testCompositingTest:100",
                                               "testCompositingTest:1000",
                                               "testDataReference",
                                               "finalTests"};
    EXPECT_EQ(titles, expected);
}

TEST(TdxTesterTable, FiveRowsFailByDesignWithTheirLines)
{
    std::vector<std::pair<std::string, std::string>> failing;
    for (const ZebSelfCheckTable::Row& each : ZebSelfCheckTable::rows()) {
        EXPECT_EQ(each.m_FailureReason != nullptr, each.failsByDesign()) << each.m_Name;
        if (each.failsByDesign())
            failing.emplace_back(each.m_Name, each.m_FailureLine);
    }
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"testDataBlockRelease", "Block Count is not zero it is -1"},
        {"testThreadedIo", "After Initial Block count is not zero it is -1"},
        {"testTileHash", "Data Blocks Exists before testing"},
        {"testDataBlockLoadedTests", "Live blocks when there should be none"},
        {"finalTests", "Blocks left handing about -1"}};
    EXPECT_EQ(failing, expected);
}

TEST(TdxTesterTable, ARowIsFoundByItsNameOrItsTitle)
{
    EXPECT_EQ(ZebSelfCheckTable::named("testHashes").size(), 1);
    EXPECT_EQ(ZebSelfCheckTable::named("testProcessImage").size(), 4);
    ASSERT_EQ(ZebSelfCheckTable::named("testProcessImage:10").size(), 1);
    EXPECT_EQ(ZebSelfCheckTable::named("testProcessImage:10").first().m_Megabytes, 10);
    EXPECT_EQ(ZebSelfCheckTable::named("runAllTest").size(), 1);
    EXPECT_TRUE(ZebSelfCheckTable::named("testProcessImage:11").isEmpty());
    EXPECT_TRUE(ZebSelfCheckTable::named("").isEmpty());
}

TEST(TdxTesterTable, OnlyTheRowsOwnOutcomeIsExpected)
{
    const ZebSelfCheckTable::Row passing = row("testHashes");
    const ZebSelfCheckTable::Row failing = row("finalTests");
    EXPECT_TRUE(passing.isExpected(true, "any line"));
    EXPECT_FALSE(passing.isExpected(false, "any line"));
    EXPECT_TRUE(failing.isExpected(false, failing.m_FailureLine));
    EXPECT_FALSE(failing.isExpected(false, "another line"));
    EXPECT_FALSE(failing.isExpected(true, failing.m_FailureLine));
}

TEST(TdxTesterFinal, AHashThatIsLeftFails)
{
    TdxTester tester;
    const MessageCapture messages;
    const ZebDataHash left(QByteArray("left"), ZebDataHash::Hash512);
    const NoBlocks noBlocks;
    EXPECT_FALSE(tester.finalTests());
    EXPECT_EQ(messages.debugLines(), QStringList{QStringLiteral("Hashes Left Over 1")});
}

TEST(TdxTesterFinal, TheBlockCountFailsBecauseBlocksAreNotCounted)
{
    TdxTester tester;
    const MessageCapture messages;
    EXPECT_FALSE(tester.finalTests());
    EXPECT_EQ(messages.debugLines(), QStringList{QStringLiteral("Blocks left handing about -1")});
}

TEST(TdxTesterFinal, NothingLeftPasses)
{
    TdxTester tester;
    // Both log lines of their own on construction.
    ZebHashManager::instance();
    ZebDataBlockManager::instance();
    const MessageCapture messages;
    const NoBlocks noBlocks;
    EXPECT_TRUE(tester.finalTests());
    EXPECT_TRUE(messages.debugLines().isEmpty()) << messages.debugLines().join('\n').toStdString();
}
