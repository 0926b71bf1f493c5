#pragma once

#include <QtGlobal>

#include <iosfwd>
#include <mutex>
#include <string>

/// A progress bar in the last line of a terminal. It owns that stream while it exists: other lines
/// are printed with printLine(), so that the bar never cuts a line in two.
///
/// An invisible bar draws nothing and prints lines only.
///
/// Thread safety: any thread may call every operation.
class ProgressBar
{
public:
    /// @param columns the width of the terminal
    ProgressBar(std::ostream& out, bool visible, int columns);

    /// Removes the bar.
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    /// A bar on standard error, visible when that is a terminal and `wanted` says so.
    static ProgressBar onStandardError(bool wanted);

    /// What the bar counts.
    enum class Unit
    {
        Bytes,
        Items
    };

    /// Starts again at 0 of `total`.
    void begin(const std::string& title, qint64 total, Unit unit = Unit::Bytes);

    /// Draws the progress if it looks different from before. More than the total counts as the
    /// total. The remark is shown after the numbers until the next call.
    void show(qint64 done, const std::string& remark = {});

    /// Writes one line, given without its line break, above the bar.
    void printLine(const std::string& line);

    /// Removes the bar until the next begin().
    void end();

private:
    std::string picture() const;
    std::string numberText(qint64 number) const;
    void draw();
    void wipe();

    std::ostream& m_Out;
    const bool m_Visible;
    const int m_Columns;

    // Guards all below, and the stream.
    std::mutex m_Mutex;
    std::string m_Title;
    qint64 m_Total = 0;
    qint64 m_Done = 0;
    Unit m_Unit = Unit::Bytes;
    std::string m_Remark;
    bool m_Running = false;
    // What the terminal's last line shows.
    std::string m_Drawn;
};
