#pragma once

#include <QtGlobal>

#include <atomic>
#include <string>

class ProgressBar;

/// Tells the user what went wrong, one line each, and counts. The work goes on meanwhile.
///
/// Thread safety: any thread may call every operation.
class ErrorReport
{
public:
    /// @param lines where the lines go
    explicit ErrorReport(ProgressBar& lines);

    /// "zebtdx: <path>: <reason>"
    void add(const std::string& path, const std::string& reason);

    /// "zebtdx: <reason>", for what belongs to no single path.
    void add(const std::string& reason);

    /// The same line for what may still turn out well, which is not counted.
    void note(const std::string& reason);

    /// How many errors there were.
    qint64 count() const;

private:
    ProgressBar& m_Lines;
    std::atomic<qint64> m_Count;
};
