#pragma once

#include <QtGlobal>

#include <atomic>
#include <exception>
#include <string>

class ProgressBar;

/// Prints errors, one line each, and counts them. The work continues.
///
/// Thread safety: any thread may call every operation.
class ErrorReport
{
public:
    /// @param lines prints the lines
    explicit ErrorReport(ProgressBar& lines);

    /// "zebtdx: <path>: <reason>"
    void add(const std::string& path, const std::string& reason);
    void add(const std::string& path, const std::exception& error) { add(path, error.what()); }

    /// "zebtdx: <reason>", where no single path is concerned.
    void add(const std::string& reason);

    /// The same lines without counting, for what may still turn out well.
    void note(const std::string& path, const std::string& text);
    void note(const std::string& text);

    /// Removes the bar, when the process will end soon.
    void endBar();

    /// Writes out standard output. An error when that, or an earlier write, failed.
    void flushOutput();

    /// How many errors there were.
    qint64 count() const { return m_Count.load(); }

    /// ExitCode::Success without errors, ExitCode::Failed with any.
    int status() const;

private:
    ProgressBar& m_Lines;
    std::atomic<qint64> m_Count = 0;
};
