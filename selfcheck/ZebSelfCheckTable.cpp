#include "selfcheck/ZebSelfCheckTable.h"

#include "selfcheck/TdxTester.h"
#include "selfcheck/ZebSelfCheck.h"

#include <QElapsedTimer>

namespace {

using Row = ZebSelfCheckTable::Row;
using T = TdxTester;

const char* const s_NoCount =
    "the library does not count its blocks, and this check requires a count of 0";

template <bool (T::*Check)()>
bool runPlain(T& tester, int megabytes)
{
    Q_UNUSED(megabytes)
    return (tester.*Check)();
}

template <bool (T::*Check)(int)>
bool runSized(T& tester, int megabytes)
{
    return (tester.*Check)(megabytes);
}

bool runAll(T& tester, int megabytes)
{
    Q_UNUSED(megabytes)
    return tester.runAllTest(1);
}

template <bool (T::*Check)()>
Row plain(const char* name)
{
    return {name, &runPlain<Check>, 0, nullptr, nullptr};
}

template <bool (T::*Check)()>
Row failing(const char* name, const char* line)
{
    return {name, &runPlain<Check>, 0, line, s_NoCount};
}

// One row for each memory limit.
template <bool (T::*Check)(int)>
QVector<Row> sized(const char* name)
{
    QVector<Row> rows;
    for (const int megabytes : {1, 10, 100, 1000})
        rows.append({name, &runSized<Check>, megabytes, nullptr, nullptr});
    return rows;
}

} // namespace

std::string ZebSelfCheckTable::Row::title() const
{
    return m_Megabytes == 0 ? m_Name : m_Name + (":" + std::to_string(m_Megabytes));
}

bool ZebSelfCheckTable::Row::isExpected(bool passed, const std::string& lastLine) const
{
    if (!failsByDesign())
        return passed;
    return !passed && lastLine == m_FailureLine;
}

QVector<ZebSelfCheckTable::Row> ZebSelfCheckTable::rows()
{
    return QVector<Row>{
               plain<&T::testPriorityList>("testPriorityList"),
               plain<&T::testSmartPointers>("testSmartPointers"),
               plain<&T::testHashes>("testHashes"),
               plain<&T::testHashManagerSingleThreaded>("testHashManagerSingleThreaded"),
               plain<&T::testHashManagerMultiThreaded>("testHashManagerMultiThreaded"),
               plain<&T::testDataBlock>("testDataBlock"),
               plain<&T::testfilenameBuilder>("testfilenameBuilder"),
               plain<&T::testDataBlockCompression>("testDataBlockCompression"),
               plain<&T::testUserDataSystem>("testUserDataSystem"),
               plain<&T::testDataBlockManagerBasic>("testDataBlockManagerBasic"),
               plain<&T::testDataBlockManagerSingleThread>("testDataBlockManagerSingleThread"),
           } +
           sized<&T::testDataBlockManagerMultiThread>("testDataBlockManagerMultiThread") +
           QVector<Row>{
               plain<&T::testDataBlockManagerImagesMultiThreaded>(
                   "testDataBlockManagerImagesMultiThreaded"),
               plain<&T::testDataBlockManagerDataStress>("testDataBlockManagerDataStress"),
               failing<&T::testDataBlockRelease>("testDataBlockRelease",
                                                 "Block Count is not zero it is -1"),
               failing<&T::testThreadedIo>("testThreadedIo",
                                           "After Initial Block count is not zero it is -1"),
               failing<&T::testTileHash>("testTileHash", "Data Blocks Exists before testing"),
           } +
           sized<&T::testProcessImage>("testProcessImage") +
           sized<&T::testTextureSet>("testTextureSet") +
           QVector<Row>{
               failing<&T::testDataBlockLoadedTests>("testDataBlockLoadedTests",
                                                     "Live blocks when there should be none"),
               plain<&T::testSubCache>("testSubCache"),
               plain<&T::testHashingJobs>("testHashingJobs"),
               plain<&T::testHashingCreate>("testHashingCreate"),
               plain<&T::testGroupBlocks>("testGroupBlocks"),
               plain<&T::testDontCacheTest>("testDontCacheTest"),
               plain<&T::testGarbageCollection>("testGarbageCollection"),
           } +
           sized<&T::testCompositingTest>("testCompositingTest") +
           QVector<Row>{
               plain<&T::testDataReference>("testDataReference"),
               failing<&T::finalTests>("finalTests", "Blocks left handing about -1"),
           };
}

ZebSelfCheckTable::Row ZebSelfCheckTable::wholeRun()
{
    return {"runAllTest", &runAll, 0, "[!!] Failed testDataBlockRelease aborting",
            "the run ends at the first row that fails by design"};
}

QVector<ZebSelfCheckTable::Row> ZebSelfCheckTable::named(const std::string& name)
{
    QVector<Row> found;
    for (const Row& row : rows() + QVector<Row>{wholeRun()}) {
        if (name == row.m_Name || name == row.title())
            found.append(row);
    }
    return found;
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
            if (!row.run(tester))
                return ZebSelfCheck::failure("[!!] Failed %s aborting", row.m_Name);
            ZebSelfCheck::line("Ran In %.2fs", ZebSelfCheck::seconds(timer.elapsed()));
        }
    }
    ZebSelfCheck::line("Ran All Tests in %.2f", ZebSelfCheck::seconds(whole.elapsed()));
    ZebSelfCheck::line("[ OK ] Passed All Tests ");
    return true;
}
