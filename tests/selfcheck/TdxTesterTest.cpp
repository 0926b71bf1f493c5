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

// What a derived class sees.
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
    const QVector<ZebSelfCheckTable::Row> rows = ZebSelfCheckTable::rows();
    for (const ZebSelfCheckTable::Row& candidate : rows) {
        if (std::string(candidate.m_Name) == name)
            return candidate;
    }
    ADD_FAILURE() << name;
    return {};
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

TEST(TdxTester, TheFoldersFollowFromTheDataFolderAndNothingIsMade)
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

TEST(TdxTester, AssignmentLeavesAllAsItIs)
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

TEST(TdxTester, ALineOfTheLogIsCutAtItsBuffer)
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

TEST(TdxTesterRun, NoRunsCheckNothingAndPass)
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

TEST(TdxTesterRun, EachRowRunsAsOftenAsAskedBeforeTheNext)
{
    // Its first use has lines of its own.
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

TEST(TdxTesterRun, TheFirstFailureEndsTheRunAndIsNamed)
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

TEST(TdxTesterRun, TheRowsAreTheseInThisOrder)
{
    std::vector<std::pair<std::string, int>> rows;
    for (const ZebSelfCheckTable::Row& each : ZebSelfCheckTable::rows()) {
        rows.emplace_back(each.m_Name, each.m_Argument);
        EXPECT_NE(each.m_Plain == nullptr, each.m_Sized == nullptr) << each.m_Name;
        EXPECT_EQ(each.m_Sized != nullptr, each.m_Argument != 0) << each.m_Name;
    }
    const std::vector<std::pair<std::string, int>> expected = {
        {"testPriorityList", 0},
        {"testSmartPointers", 0},
        {"testHashes", 0},
        {"testHashManagerSingleThreaded", 0},
        {"testHashManagerMultiThreaded", 0},
        {"testDataBlock", 0},
        {"testfilenameBuilder", 0},
        {"testDataBlockCompression", 0},
        {"testUserDataSystem", 0},
        {"testDataBlockManagerBasic", 0},
        {"testDataBlockManagerSingleThread", 0},
        {"testDataBlockManagerMultiThread", 1},
        {"testDataBlockManagerMultiThread", 10},
        {"testDataBlockManagerMultiThread", 100},
        {"testDataBlockManagerMultiThread", 1000},
        {"testDataBlockManagerImagesMultiThreaded", 0},
        {"testDataBlockManagerDataStress", 0},
        {"testDataBlockRelease", 0},
        {"testThreadedIo", 0},
        {"testTileHash", 0},
        {"testProcessImage", 1},
        {"testProcessImage", 10},
        {"testProcessImage", 100},
        {"testProcessImage", 1000},
        {"testTextureSet", 1},
        {"testTextureSet", 10},
        {"testTextureSet", 100},
        {"testTextureSet", 1000},
        {"testDataBlockLoadedTests", 0},
        {"testSubCache", 0},
        {"testHashingJobs", 0},
        {"testHashingCreate", 0},
        {"testGroupBlocks", 0},
        {"testDontCacheTest", 0},
        {"testGarbageCollection", 0},
        {"testCompositingTest", 1},
        {"testCompositingTest", 10},
        {"testCompositingTest", 100},
        {"testCompositingTest", 1000},
        {"testDataReference", 0},
        {"finalTests", 0}};
    EXPECT_EQ(rows, expected);
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

TEST(TdxTesterFinal, TheBlockCountFailsWhereItCannotBeKnown)
{
    TdxTester tester;
    const MessageCapture messages;
    EXPECT_FALSE(tester.finalTests());
    EXPECT_EQ(messages.debugLines(), QStringList{QStringLiteral("Blocks left handing about -1")});
}

TEST(TdxTesterFinal, NothingLeftPasses)
{
    TdxTester tester;
    // Both say something of their own when they are built.
    ZebHashManager::instance();
    ZebDataBlockManager::instance();
    const MessageCapture messages;
    const NoBlocks noBlocks;
    EXPECT_TRUE(tester.finalTests());
    EXPECT_TRUE(messages.debugLines().isEmpty()) << messages.debugLines().join('\n').toStdString();
}
