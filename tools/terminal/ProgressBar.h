#pragma once

#include <QtGlobal>

#include <iosfwd>
#include <mutex>
#include <string>

/// A progress bar in the last line of a terminal. It owns that stream while it exists: lines that
/// others have to say go out through printLine(), so that the bar never cuts one in two.
///
/// An invisible bar draws nothing, and passes lines on.
///
/// Thread safety: any thread may call every operation.
class ProgressBar
{
public:
    /// @param columns the width of the terminal
    ProgressBar(std::ostream& out, bool visible, int columns);

    /// Takes the bar away.
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    /// A bar on standard error, visible when that is a terminal and `wanted` says so.
    static ProgressBar onStandardError(bool wanted);

    /// What the numbers of a bar are.
    enum class Unit
    {
        Bytes,
        Things
    };

    /// Starts again at nothing of `total`.
    void begin(const std::string& title, qint64 total, Unit unit = Unit::Bytes);

    /// Draws how far the work is, if that looks any different from before. More than the total
    /// counts as the total. The remark stands behind the numbers until the next call.
    void show(qint64 done, const std::string& remark = {});

    /// Writes one line, which lacks its line end, above the bar.
    void printLine(const std::string& line);

    /// Takes the bar away until the next begin().
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
    qint64 m_Total;
    qint64 m_Done;
    Unit m_Unit;
    std::string m_Remark;
    bool m_Running;
    // What stands in the terminal's line now.
    std::string m_Drawn;
};
