#include "tools/commands/SelfCheckRows.h"

#include "selfcheck/TdxTester.h"

#include <QMutex>
#include <QMutexLocker>
#include <QString>

namespace {

const char* const s_NoCount =
    "the library does not count its blocks, and this row wants the count to be 0";

using Row = SelfCheckRows::Row;
using T = TdxTester;

Row plain(const char* name, bool (T::*check)())
{
    return {name, check, nullptr, 0, nullptr, nullptr};
}

Row failing(const char* name, bool (T::*check)(), const char* words)
{
    return {name, check, nullptr, 0, words, s_NoCount};
}

void appendSized(std::vector<Row>& rows, const char* name, bool (T::*check)(int))
{
    for (const int megabytes : {1, 10, 100, 1000})
        rows.push_back({name, nullptr, check, megabytes, nullptr, nullptr});
}

bool runAll(T& tester)
{
    return tester.runAllTest(1);
}

// What the library said last. Guards the text; nothing is called inside it.
QMutex s_Mutex;
QString s_LastLine;
QtMessageHandler s_Next = nullptr;

void noteLine(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    {
        const QMutexLocker locker(&s_Mutex);
        s_LastLine = text;
    }
    if (s_Next != nullptr)
        s_Next(type, context, text);
}

// The handler for the length of a scope.
class Listening
{
public:
    Listening()
    {
        s_LastLine.clear();
        s_Next = qInstallMessageHandler(&noteLine);
    }
    ~Listening() { qInstallMessageHandler(s_Next); }
    Listening(const Listening&) = delete;
    Listening& operator=(const Listening&) = delete;
};

} // namespace

std::string SelfCheckRows::Row::title() const
{
    return m_Sized == nullptr ? m_Name : m_Name + (":" + std::to_string(m_Argument));
}

std::vector<SelfCheckRows::Row> SelfCheckRows::all()
{
    std::vector<Row> rows = {
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
    rows.push_back(plain("testDataBlockManagerImagesMultiThreaded",
                         &T::testDataBlockManagerImagesMultiThreaded));
    rows.push_back(plain("testDataBlockManagerDataStress", &T::testDataBlockManagerDataStress));
    rows.push_back(failing("testDataBlockRelease", &T::testDataBlockRelease,
                           "Block Count is not zero it is -1"));
    rows.push_back(failing("testThreadedIo", &T::testThreadedIo,
                           "After Initial Block count is not zero it is -1"));
    rows.push_back(failing("testTileHash", &T::testTileHash, "Data Blocks Exists before testing"));
    appendSized(rows, "testProcessImage", &T::testProcessImage);
    appendSized(rows, "testTextureSet", &T::testTextureSet);
    rows.push_back(failing("testDataBlockLoadedTests", &T::testDataBlockLoadedTests,
                           "Live blocks when there should be none"));
    rows.push_back(plain("testSubCache", &T::testSubCache));
    rows.push_back(plain("testHashingJobs", &T::testHashingJobs));
    rows.push_back(plain("testHashingCreate", &T::testHashingCreate));
    rows.push_back(plain("testGroupBlocks", &T::testGroupBlocks));
    rows.push_back(plain("testDontCacheTest", &T::testDontCacheTest));
    rows.push_back(plain("testGarbageCollection", &T::testGarbageCollection));
    appendSized(rows, "testCompositingTest", &T::testCompositingTest);
    rows.push_back(plain("testDataReference", &T::testDataReference));
    rows.push_back(failing("finalTests", &T::finalTests, "Blocks left handing about -1"));
    return rows;
}

SelfCheckRows::Row SelfCheckRows::wholeRun()
{
    return {"runAllTest",
            nullptr,
            nullptr,
            0,
            "[!!] Failed testDataBlockRelease aborting",
            "it ends at the first row that fails by design"};
}

std::vector<SelfCheckRows::Row> SelfCheckRows::named(const std::string& name)
{
    std::vector<Row> candidates = all();
    candidates.push_back(wholeRun());
    std::vector<Row> rows;
    for (const Row& row : candidates) {
        if (name == row.m_Name || name == row.title())
            rows.push_back(row);
    }
    return rows;
}

bool SelfCheckRows::Outcome::isRight(const Row& row) const
{
    if (row.m_Words == nullptr)
        return m_Passed;
    return !m_Passed && m_LastLine == row.m_Words;
}

SelfCheckRows::Outcome SelfCheckRows::run(TdxTester& tester, const Row& row)
{
    const Listening listening;
    bool passed = false;
    if (row.m_Sized != nullptr)
        passed = (tester.*row.m_Sized)(row.m_Argument);
    else if (row.m_Plain != nullptr)
        passed = (tester.*row.m_Plain)();
    else
        passed = runAll(tester);
    const QMutexLocker locker(&s_Mutex);
    return {passed, s_LastLine.toStdString()};
}
