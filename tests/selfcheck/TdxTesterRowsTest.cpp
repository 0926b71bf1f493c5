// Every row of the self-check that takes seconds; the others are in TdxTesterHeavyTest.cpp.

#include "support/SelfCheckRows.h"

namespace {

using SampleData::Images;
using SampleData::Text;
using SampleData::Textures;
using SampleData::Tiles;

const ExpectedRow s_Rows[] = {
    {1, "testPriorityList", 0, 0, "[ -- ] Starting Priority Queue Test",
     "[ OK ] Passed Priority Queue Test", true},
    {2, "testSmartPointers", 0, 0, "[ -- ] Start Smart Pointer Test",
     "[ OK ] Smart Pointer Test Passed", true},
    {3, "testHashes", 0, 0, "[ -- ] Starting Hash Tests", "[ OK ] Passed Hash Tests", true},
    {4, "testHashManagerSingleThreaded", 0, 0, "[ -- ] Started Single Threaded Hash Manager tests",
     "[ OK ] Passed Single Threaded Hash Manager tests", true},
    {5, "testHashManagerMultiThreaded", 0, 0, "[ -- ] Start hash Manager Multi Threaded",
     "[ OK ] Passed hash Manager Multi Threaded", true},
    // Says "Passed" where the others say "Starting".
    {6, "testDataBlock", 0, Text, "[ -- ] Passed Basic Block Tests",
     "[ OK ] Passed Basic Block Tests", true},
    {7, "testfilenameBuilder", 0, 0, "[ -- ] Starting Filename Builder Test",
     "[ OK ] Passed Filename Builder Test", true},
    {8, "testDataBlockCompression", 0, Text, "[ -- ] Starting Block Compression Tests",
     "[ OK ] Passed Block Compression Tests", true},
    {9, "testUserDataSystem", 0, 0, "[ -- ] Starting User Data System Test",
     "[ OK ] Passed User Data System Test", true},
    {10, "testDataBlockManagerBasic", 0, 0, "[ -- ] Starting Data Block Manager Basic Tests",
     "[ OK ] Passed Data Block Manager Basic Tests", true},
    {11, "testDataBlockManagerSingleThread", 0, 0,
     "[ -- ] Started DataBlock Manager Single threaded test",
     "[ OK ] DataBlock Manager Single threaded test passed", true},
    {16, "testDataBlockManagerImagesMultiThreaded", 0, Images, "[ -- ] Starting Image Dicing Tests",
     "[ OK ] Passed Image Dicing Tests", true},
    {17, "testDataBlockManagerDataStress", 0, 0, "[ -- ] Starting Datablock Data Stress Test",
     "[ OK ] Passed Datablock Data Stress Test", true},
    {20, "testTileHash", 0, Tiles, "[ -- ] Starting Tile Hash Tests",
     "Data Blocks Exists before testing", false},
    {21, "testProcessImage", 1, Images, "[ -- ] Starting Image Process Tests",
     "[ OK ] Passed Image Process Tests", true},
    {22, "testProcessImage", 10, Images, "[ -- ] Starting Image Process Tests",
     "[ OK ] Passed Image Process Tests", true},
    {23, "testProcessImage", 100, Images, "[ -- ] Starting Image Process Tests",
     "[ OK ] Passed Image Process Tests", true},
    {24, "testProcessImage", 1000, Images, "[ -- ] Starting Image Process Tests",
     "[ OK ] Passed Image Process Tests", true},
    {25, "testTextureSet", 1, Textures, "[ -- ] Starting Texture Set Tests",
     "[ OK ] Passed Texture Set Tests", true},
    {26, "testTextureSet", 10, Textures, "[ -- ] Starting Texture Set Tests",
     "[ OK ] Passed Texture Set Tests", true},
    {27, "testTextureSet", 100, Textures, "[ -- ] Starting Texture Set Tests",
     "[ OK ] Passed Texture Set Tests", true},
    {28, "testTextureSet", 1000, Textures, "[ -- ] Starting Texture Set Tests",
     "[ OK ] Passed Texture Set Tests", true},
    {29, "testDataBlockLoadedTests", 0, Images, "[ -- ] Starting Test Loaded State",
     "Live blocks when there should be none", false},
    {30, "testSubCache", 0, 0, "[ -- ] Starting Sub Cache Tests", "[ OK ] Passed Sub Cache Tests",
     true},
    {31, "testHashingJobs", 0, 0, "[ -- ] Starting Hashing Job Tests",
     "[ OK ] Passed Hashing Job Tests", true},
    {32, "testHashingCreate", 0, 0, "[ -- ] Starting Hashing Usage Timings",
     "[ OK ] Passed Hashing Usage Timings", true},
    {33, "testGroupBlocks", 0, 0, "[ -- ] Starting Group Block Test",
     "[ OK ] Passed Group Block Test", true},
    {34, "testDontCacheTest", 0, 0, "[ -- ] Start DontCache Test", "[ OK ] Passed DontCache Test",
     true},
    {35, "testGarbageCollection", 0, 0, "[ -- ] Start Garbage Collection Testing",
     "[ OK ] Passed Garbage Collection Testing", true},
    // Two blanks.
    {36, "testCompositingTest", 1, Textures, "[ -- ] Starting Compositing Tests",
     "[ OK ]  Passed Compositing Tests", true},
    {37, "testCompositingTest", 10, Textures, "[ -- ] Starting Compositing Tests",
     "[ OK ]  Passed Compositing Tests", true},
    {38, "testCompositingTest", 100, Textures, "[ -- ] Starting Compositing Tests",
     "[ OK ]  Passed Compositing Tests", true},
    {39, "testCompositingTest", 1000, Textures, "[ -- ] Starting Compositing Tests",
     "[ OK ]  Passed Compositing Tests", true},
    {40, "testDataReference", 0, 0, "[ -- ] Start Data Reference Testing",
     "[ OK ] Passed Data Reference Testing", true},
    {41, "finalTests", 0, 0, "Blocks left handing about -1", "Blocks left handing about -1", false},
};

class TdxTesterRows : public ::testing::TestWithParam<ExpectedRow>
{};

} // namespace

TEST_P(TdxTesterRows, ComesOutAsItMust)
{
    expectRow(GetParam());
}

INSTANTIATE_TEST_SUITE_P(SelfCheck, TdxTesterRows, ::testing::ValuesIn(s_Rows), rowTestName);
