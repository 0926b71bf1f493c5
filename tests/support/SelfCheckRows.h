#pragma once

#include "selfcheck/TdxTester.h"
#include "selfcheck/ZebSelfCheckTable.h"
#include "support/MessageCapture.h"
#include "support/SampleFolder.h"

#include "hash/ZebDataHash.h"
#include "manager/ZebDataBlockManager.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

/// The rows of the self-check as parameters of a test: the quick ones, and those that take minutes.
namespace SelfCheckRows {

/// What a check needs and prints, next to what the table says of it.
struct CheckLines
{
    const char* m_Name;
    /// The parts of SampleData that the check reads.
    int m_Parts;
    const char* m_First;
    /// The last line of success; null for a check that fails by design.
    const char* m_Last;
    bool m_IsHeavy;
};

inline std::vector<CheckLines> checkLines()
{
    using namespace SampleData;
    return {
        {"testPriorityList", 0, "[ -- ] Starting Priority Queue Test",
         "[ OK ] Passed Priority Queue Test", false},
        {"testSmartPointers", 0, "[ -- ] Start Smart Pointer Test",
         "[ OK ] Smart Pointer Test Passed", false},
        {"testHashes", 0, "[ -- ] Starting Hash Tests", "[ OK ] Passed Hash Tests", false},
        {"testHashManagerSingleThreaded", 0, "[ -- ] Started Single Threaded Hash Manager tests",
         "[ OK ] Passed Single Threaded Hash Manager tests", false},
        {"testHashManagerMultiThreaded", 0, "[ -- ] Start hash Manager Multi Threaded",
         "[ OK ] Passed hash Manager Multi Threaded", false},
        // Prints "Passed" where the others print "Starting".
        {"testDataBlock", Text, "[ -- ] Passed Basic Block Tests",
         "[ OK ] Passed Basic Block Tests", false},
        {"testfilenameBuilder", 0, "[ -- ] Starting Filename Builder Test",
         "[ OK ] Passed Filename Builder Test", false},
        {"testDataBlockCompression", Text, "[ -- ] Starting Block Compression Tests",
         "[ OK ] Passed Block Compression Tests", false},
        {"testUserDataSystem", 0, "[ -- ] Starting User Data System Test",
         "[ OK ] Passed User Data System Test", false},
        {"testDataBlockManagerBasic", 0, "[ -- ] Starting Data Block Manager Basic Tests",
         "[ OK ] Passed Data Block Manager Basic Tests", false},
        {"testDataBlockManagerSingleThread", 0,
         "[ -- ] Started DataBlock Manager Single threaded test",
         "[ OK ] DataBlock Manager Single threaded test passed", false},
        {"testDataBlockManagerMultiThread", 0, "[ -- ] Starting Datablock Multithreaded Test",
         "[ OK ] Passed Datablock Multithreaded Test", true},
        {"testDataBlockManagerImagesMultiThreaded", Images, "[ -- ] Starting Image Dicing Tests",
         "[ OK ] Passed Image Dicing Tests", false},
        {"testDataBlockManagerDataStress", 0, "[ -- ] Starting Datablock Data Stress Test",
         "[ OK ] Passed Datablock Data Stress Test", false},
        {"testDataBlockRelease", 0, "[ -- ] Starting Datablock Release Testing", nullptr, true},
        {"testThreadedIo", 0, "[ -- ] Starting Test Threaded IO ", nullptr, true},
        {"testTileHash", Tiles, "[ -- ] Starting Tile Hash Tests", nullptr, false},
        {"testProcessImage", Images, "[ -- ] Starting Image Process Tests",
         "[ OK ] Passed Image Process Tests", false},
        {"testTextureSet", Textures, "[ -- ] Starting Texture Set Tests",
         "[ OK ] Passed Texture Set Tests", false},
        {"testDataBlockLoadedTests", Images, "[ -- ] Starting Test Loaded State", nullptr, false},
        {"testSubCache", 0, "[ -- ] Starting Sub Cache Tests", "[ OK ] Passed Sub Cache Tests",
         false},
        {"testHashingJobs", 0, "[ -- ] Starting Hashing Job Tests",
         "[ OK ] Passed Hashing Job Tests", false},
        {"testHashingCreate", 0, "[ -- ] Starting Hashing Usage Timings",
         "[ OK ] Passed Hashing Usage Timings", false},
        {"testGroupBlocks", 0, "[ -- ] Starting Group Block Test", "[ OK ] Passed Group Block Test",
         false},
        {"testDontCacheTest", 0, "[ -- ] Start DontCache Test", "[ OK ] Passed DontCache Test",
         false},
        {"testGarbageCollection", 0, "[ -- ] Start Garbage Collection Testing",
         "[ OK ] Passed Garbage Collection Testing", false},
        // Two blanks.
        {"testCompositingTest", Textures, "[ -- ] Starting Compositing Tests",
         "[ OK ]  Passed Compositing Tests", false},
        {"testDataReference", 0, "[ -- ] Start Data Reference Testing",
         "[ OK ] Passed Data Reference Testing", false},
        // Its only line is that of its failure.
        {"finalTests", 0, "Blocks left handing about -1", nullptr, false},
    };
}

inline CheckLines linesOf(const char* name)
{
    for (const CheckLines& lines : checkLines()) {
        if (std::string(lines.m_Name) == name)
            return lines;
    }
    throw std::logic_error(name);
}

/// The numbers, from 1, of the table's rows that are heavy or not.
inline std::vector<int> numbers(bool heavy)
{
    std::vector<int> numbers;
    int number = 0;
    for (const ZebSelfCheckTable::Row& row : ZebSelfCheckTable::rows()) {
        ++number;
        if (linesOf(row.m_Name).m_IsHeavy == heavy)
            numbers.push_back(number);
    }
    return numbers;
}

/// A name for the test of this row.
inline std::string testName(const ::testing::TestParamInfo<int>& info)
{
    const ZebSelfCheckTable::Row row = ZebSelfCheckTable::rows().at(info.param - 1);
    return "Row" + std::to_string(info.param) + "_" + row.m_Name + "_" +
           std::to_string(row.m_Megabytes);
}

/// Runs the row, and expects its outcome, its first and last line, and that it leaves nothing.
inline void expectRow(int number)
{
    const ZebSelfCheckTable::Row row = ZebSelfCheckTable::rows().at(number - 1);
    const CheckLines lines = linesOf(row.m_Name);
    ASSERT_EQ(lines.m_Last == nullptr, row.failsByDesign());
    const SampleFolder folder(lines.m_Parts);
    ZebDataBlockManager::instance();
    const int hashesBefore = ZebDataHash::hashCount();
    TdxTester tester;
    const MessageCapture messages;
    const bool passed = row.run(tester);
    const QStringList printed = messages.debugLines();
    const std::string last = printed.last().toStdString();
    EXPECT_TRUE(row.isExpected(passed, last)) << printed.join('\n').toStdString();
    EXPECT_EQ(printed.first().toStdString(), lines.m_First);
    if (passed) {
        EXPECT_EQ(last, lines.m_Last);
    }
    EXPECT_FALSE(ZebDataBlockManager::instance().isInitialized());
    EXPECT_EQ(ZebDataHash::hashCount(), hashesBefore);
    EXPECT_EQ(folder.leftInRoots().join(' ').toStdString(), "");
}

} // namespace SelfCheckRows
