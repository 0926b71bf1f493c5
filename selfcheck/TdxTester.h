#pragma once

#include "support/ZebTdxExport.h"

#include <QString>
#include <QtGlobal>

#include <atomic>

/// The built-in self-check: proves on the machine at hand that the store works, in memory, on disk,
/// under threads and at its limits. It drives the process's one store against real cache roots.
///
/// Before use:
///  - The store must not be set up, and the host must hold no block, hash or reference of it.
///  - setTestDataDirectory() names the folder of sample data, which the host supplies.
///  - Images of every kind in the sample data must be readable by Qt; TIFF needs its plugin.
///  - A QCoreApplication must exist.
///
/// Every check logs to Qt's debug log what it does and, when it fails, why. It sets the store up on
/// the cache roots below the data folder, empties the roots before and after, cleans the store up
/// and returns whether everything was right. So each check can run alone, in any order. A broken
/// contract of the store ends the process, as in any host.
///
/// The checks that take an argument take the store's memory limit in MiB.
///
/// Kept on purpose: blocks are not counted, and ZebDataBlock::blockCount() is always -1. The checks
/// that require a count of 0 therefore always fail, each with its message: testDataBlockRelease(),
/// testThreadedIo(), testTileHash(), testDataBlockLoadedTests() and finalTests(). runAllTest() ends
/// at the first of them.
///
/// Thread safety: one check at a time, on one thread; the checks start workers of their own in Qt's
/// global pool. Do not call a check from a task of that pool: cleaning the store up waits for all
/// of them. tdxLog() may be called from any thread.
///
/// Locks: the caller holds none of the store's.
class ZEBTDX_EXPORT TdxTester
{
public:
    /// Switches tdxLog() off.
    TdxTester();
    TdxTester(const TdxTester& other) = default;

    /// A tester has no state of its own, so assignment does nothing.
    TdxTester& operator=(const TdxTester& other);
    TdxTester& operator=(TdxTester&& other) noexcept;

    /// Names the data folder, and with it its sub-folders "TestTiles", "TestImages", "TextureTest"
    /// and "out". Reads and creates nothing. Applies to all testers.
    void setTestDataDirectory(const QString& directory);

    /// Sends a line, formatted as by printf(), to Qt's debug log when tdxLog() is switched on. A
    /// line is truncated to 2047 bytes.
    static void tdxLog(const char* format, ...) Q_ATTRIBUTE_FORMAT_PRINTF(1, 2);

    /// Runs every check, each `runs` times before the next one. Returns false at the first failure.
    /// With less than one run, checks nothing and returns true.
    bool runAllTest(int runs);

    /// Whether no hash and no block is left.
    bool finalTests();

    // Without the store

    bool testPriorityList();
    bool testSmartPointers();
    bool testHashes();
    bool testHashManagerMultiThreaded();
    bool testDataBlock();
    bool testDataBlockCompression();

    // Hashes, blocks, references

    bool testHashManagerSingleThreaded();
    bool testUserDataSystem();
    bool testDataReference();
    bool testGroupBlocks();
    bool testHashingJobs();
    bool testHashingCreate();
    bool testDataBlockRelease();

    // The store

    bool testfilenameBuilder();
    bool testSubCache();
    bool testDataBlockManagerBasic();
    bool testDataBlockManagerSingleThread();

    /// Kept on purpose: switches tdxLog() on, and no later check of the run switches it off.
    bool testDataBlockManagerMultiThread(int megabytes);
    bool testDataBlockManagerDataStress();
    bool testThreadedIo();
    bool testDontCacheTest();
    bool testGarbageCollection();

    // Images

    bool testDataBlockManagerImagesMultiThreaded();
    bool testTileHash();
    bool testProcessImage(int megabytes);
    bool testTextureSet(int megabytes);
    bool testDataBlockLoadedTests();
    bool testCompositingTest(int megabytes);

protected:
    /// Whether tdxLog() logs anything. Read on any thread, not ordered with anything else.
    static std::atomic<bool> m_Logging;

    // The data folders. Set by the thread that runs the checks, and read by their workers.
    static QString m_TestDataDirectory;
    static QString m_TestTilesDirectory;
    static QString m_TestImagesDirectory;
    static QString m_TextureTestDirectory;
    static QString m_OutDirectory;
};
