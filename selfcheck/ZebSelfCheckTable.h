#pragma once

// Internal: the order of the checks. Not installed.

#include <QVector>

class TdxTester;

/// The table of all checks, and the run over it.
///
/// Thread safety: as TdxTester.
namespace ZebSelfCheckTable {

/// One row: a check that takes an argument has m_Sized, any other m_Plain.
struct Row
{
    const char* m_Name;
    bool (TdxTester::*m_Plain)();
    bool (TdxTester::*m_Sized)(int);
    int m_Argument;
};

/// All rows, in order.
QVector<Row> rows();

/// Runs each row `runs` times before the next one, up to the first failure. Cleans nothing up: that
/// is each check's own matter.
bool run(TdxTester& tester, const QVector<Row>& rows, int runs);

} // namespace ZebSelfCheckTable
