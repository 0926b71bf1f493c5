#pragma once

#include <string>
#include <vector>

class TdxTester;

/// The rows of the library's self-check, as the tool runs them one by one.
namespace SelfCheckRows {

/// One row. A check that takes an argument has m_Sized, any other m_Plain.
struct Row
{
    const char* m_Name;
    bool (TdxTester::*m_Plain)();
    bool (TdxTester::*m_Sized)(int);
    int m_Argument;
    /// With which words the row fails by design, and why; null when it must pass.
    const char* m_Words;
    const char* m_Reason;

    /// The name, with the argument behind a colon if there is one.
    std::string title() const;
};

/// All rows, in the library's order.
std::vector<Row> all();

/// The whole run of the library, which ends at the first row that fails by design.
Row wholeRun();

/// The rows of that title, or all of that name; none for an unknown one.
std::vector<Row> named(const std::string& name);

/// How a row came out.
struct Outcome
{
    bool m_Passed;
    /// The last line that the row said.
    std::string m_LastLine;

    /// Whether the row did what it must.
    bool isRight(const Row& row) const;
};

/// Runs the row in this process, in the tester's data folder. The library's messages pass on to the
/// handler that is installed. On one thread at a time.
Outcome run(TdxTester& tester, const Row& row);

} // namespace SelfCheckRows
