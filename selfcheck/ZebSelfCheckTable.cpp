#include "selfcheck/ZebSelfCheckTable.h"

#include "selfcheck/TdxTester.h"
#include "selfcheck/ZebSelfCheck.h"

#include <QElapsedTimer>

namespace {

ZebSelfCheckTable::Row plain(const char* name, bool (TdxTester::*check)())
{
    return {name, check, nullptr, 0};
}

// The check once for each memory limit, in MiB.
void appendSized(QVector<ZebSelfCheckTable::Row>& rows, const char* name,
                 bool (TdxTester::*check)(int))
{
    for (const int megabytes : {1, 10, 100, 1000})
        rows.append({name, nullptr, check, megabytes});
}

bool runOnce(TdxTester& tester, const ZebSelfCheckTable::Row& row)
{
    if (row.m_Sized != nullptr)
        return (tester.*row.m_Sized)(row.m_Argument);
    return (tester.*row.m_Plain)();
}

} // namespace

QVector<ZebSelfCheckTable::Row> ZebSelfCheckTable::rows()
{
    using T = TdxTester;
    QVector<Row> rows = {
        plain("testPriorityList", &T::testPriorityList),
        plain("testSmartPointers", &T::testSmartPointers),
        plain("testHashes", &T::testHashes),
        plain("testHashManagerSingleThreaded", &T::testHashManagerSingleThreaded),
        plain("testHashManagerMultiThreaded", &T::testHashManagerMultiThreaded),
        plain("testDataBlock", &T::testDataBlock),
        plain("testfilenameBuilder", &T::testfilenameBuilder),
        plain("testDataBlockCompression", &T::testDataBlockCompression),
        plain("testUserDataSystem", &T::testUserDataSystem),
        plain("testDataBlockManagerBasic", &T::testDataBlockManagerBasic),
        plain("testDataBlockManagerSingleThread", &T::testDataBlockManagerSingleThread),
    };
    appendSized(rows, "testDataBlockManagerMultiThread", &T::testDataBlockManagerMultiThread);
    rows += {
        plain("testDataBlockManagerImagesMultiThreaded",
              &T::testDataBlockManagerImagesMultiThreaded),
        plain("testDataBlockManagerDataStress", &T::testDataBlockManagerDataStress),
        plain("testDataBlockRelease", &T::testDataBlockRelease),
        plain("testThreadedIo", &T::testThreadedIo),
        plain("testTileHash", &T::testTileHash),
    };
    appendSized(rows, "testProcessImage", &T::testProcessImage);
    appendSized(rows, "testTextureSet", &T::testTextureSet);
    rows += {
        plain("testDataBlockLoadedTests", &T::testDataBlockLoadedTests),
        plain("testSubCache", &T::testSubCache),
        plain("testHashingJobs", &T::testHashingJobs),
        plain("testHashingCreate", &T::testHashingCreate),
        plain("testGroupBlocks", &T::testGroupBlocks),
        plain("testDontCacheTest", &T::testDontCacheTest),
        plain("testGarbageCollection", &T::testGarbageCollection),
    };
    appendSized(rows, "testCompositingTest", &T::testCompositingTest);
    rows += {
        plain("testDataReference", &T::testDataReference),
        plain("finalTests", &T::finalTests),
    };
    return rows;
}

bool ZebSelfCheckTable::run(TdxTester& tester, const QVector<Row>& rows, int runs)
{
    ZebSelfCheck::line("[ -- ] Starting All Tests ");
    QElapsedTimer whole;
    whole.start();
    for (const Row& row : rows) {
        for (int index = 0; index < runs; ++index) {
            if (runs > 1)
                ZebSelfCheck::line("Run %d/%d", index, runs);
            QElapsedTimer timer;
            timer.start();
            if (!runOnce(tester, row))
                return ZebSelfCheck::failure("[!!] Failed %s aborting", row.m_Name);
            ZebSelfCheck::line("Ran In %.2fs", ZebSelfCheck::seconds(timer.elapsed()));
        }
    }
    ZebSelfCheck::line("Ran All Tests in %.2f", ZebSelfCheck::seconds(whole.elapsed()));
    ZebSelfCheck::line("[ OK ] Passed All Tests ");
    return true;
}
