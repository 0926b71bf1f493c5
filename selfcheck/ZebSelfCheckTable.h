#pragma once

// Internal: the one list of the checks. Not installed.

#include <QVector>

#include <string>

class TdxTester;

/// The table of all checks: their order, how each runs, and which of them fail by design. The run
/// of the library, the tool and the tests all use it.
///
/// Thread safety: as TdxTester.
namespace ZebSelfCheckTable {

/// One row: a check, with its argument if it takes one.
struct Row
{
    const char* m_Name;
    bool (*m_Check)(TdxTester& tester, int megabytes);

    /// The memory limit in MiB; 0 for a check that takes none.
    int m_Megabytes;

    /// The last line that the row logs when it fails by design, and why it fails; both null for a
    /// row that must pass.
    const char* m_FailureLine;
    const char* m_FailureReason;

    /// "name" or "name:megabytes".
    std::string title() const;

    bool failsByDesign() const { return m_FailureLine != nullptr; }

    /// Whether a run with this result and this last logged line is the expected outcome.
    bool isExpected(bool passed, const std::string& lastLine) const;

    /// Runs the check once, and returns what it returned.
    bool run(TdxTester& tester) const { return m_Check(tester, m_Megabytes); }
};

/// All rows, in order.
QVector<Row> rows();

/// TdxTester::runAllTest() as a row. It fails by design too, at the first row that does, and is
/// not one of rows().
Row wholeRun();

/// The rows with this name or title, out of rows() and wholeRun(); none for an unknown name.
QVector<Row> named(const std::string& name);

/// Runs each row `runs` times before the next one, up to the first failure. Cleans nothing up: each
/// check does that itself.
bool run(TdxTester& tester, const QVector<Row>& rows, int runs);

} // namespace ZebSelfCheckTable
