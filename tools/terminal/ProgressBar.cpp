#include "tools/terminal/ProgressBar.h"

#include "tools/terminal/SizeText.h"

#include <algorithm>
#include <iostream>

#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr int s_DefaultColumns = 80;
constexpr int s_LeastBarWidth = 10;
constexpr int s_MostBarWidth = 50;
// Every size fits, so that the width of the bar does not change.
constexpr std::size_t s_SizeWidth = 10;

int terminalColumns(int descriptor)
{
    winsize size = {};
    if (ioctl(descriptor, TIOCGWINSZ, &size) != 0 || size.ws_col == 0)
        return s_DefaultColumns;
    return size.ws_col;
}

std::string barOf(int percent, int width)
{
    const int filled = width * percent / 100;
    std::string bar(static_cast<std::size_t>(width), ' ');
    for (int i = 0; i < filled; ++i)
        bar[static_cast<std::size_t>(i)] = '=';
    if (filled < width)
        bar[static_cast<std::size_t>(filled)] = '>';
    return "[" + bar + "]";
}

std::string padded(const std::string& text, std::size_t width)
{
    return text.size() >= width ? text : std::string(width - text.size(), ' ') + text;
}

} // namespace

ProgressBar::ProgressBar(std::ostream& out, bool visible, int columns)
    : m_Out(out), m_Visible(visible), m_Columns(columns)
{}

ProgressBar::~ProgressBar()
{
    end();
}

ProgressBar ProgressBar::onStandardError(bool wanted)
{
    const bool visible = wanted && isatty(STDERR_FILENO) == 1;
    return ProgressBar(std::cerr, visible, terminalColumns(STDERR_FILENO));
}

void ProgressBar::begin(const std::string& title, qint64 total, Unit unit)
{
    const std::lock_guard<std::mutex> locker(m_Mutex);
    m_Title = title;
    m_Total = std::max<qint64>(total, 0);
    m_Done = 0;
    m_Unit = unit;
    m_Remark.clear();
    m_Running = true;
    draw();
}

void ProgressBar::show(qint64 done, const std::string& remark)
{
    const std::lock_guard<std::mutex> locker(m_Mutex);
    m_Remark = remark;
    m_Done = std::clamp<qint64>(done, 0, m_Total);
    draw();
}

void ProgressBar::printLine(const std::string& line)
{
    const std::lock_guard<std::mutex> locker(m_Mutex);
    wipe();
    m_Out << line << '\n';
    m_Out.flush();
    draw();
}

void ProgressBar::end()
{
    const std::lock_guard<std::mutex> locker(m_Mutex);
    m_Running = false;
    wipe();
}

std::string ProgressBar::numberText(qint64 number) const
{
    return m_Unit == Unit::Bytes ? SizeText::print(number) : SizeText::grouped(number);
}

std::string ProgressBar::picture() const
{
    const double share =
        m_Total == 0 ? 1.0 : static_cast<double>(m_Done) / static_cast<double>(m_Total);
    // 100 % is for complete work only.
    const int percent = m_Done == m_Total ? 100 : std::min(static_cast<int>(share * 100), 99);
    const std::string total = numberText(m_Total);
    const std::string numbers = padded(std::to_string(percent), 3) + " %  " +
                                padded(numberText(m_Done), s_SizeWidth) + " of " + total +
                                (m_Remark.empty() ? "" : ", " + m_Remark);
    // The last column stays free, as some terminals would move to the next line. Brackets and two
    // blanks enclose the bar.
    const int room = m_Columns - 1 - static_cast<int>(m_Title.size() + numbers.size()) - 4;
    std::string text = m_Title + " ";
    if (room >= s_LeastBarWidth)
        text += barOf(percent, std::min(room, s_MostBarWidth)) + " ";
    text += numbers;
    return text.substr(0, static_cast<std::size_t>(std::max(m_Columns - 1, 0)));
}

void ProgressBar::draw()
{
    if (!m_Visible || !m_Running)
        return;
    const std::string text = picture();
    if (text == m_Drawn)
        return;
    // Blanks overwrite the rest of a longer text; every terminal supports those.
    const std::size_t rest = m_Drawn.size() > text.size() ? m_Drawn.size() - text.size() : 0;
    m_Out << '\r' << text << std::string(rest, ' ');
    m_Out.flush();
    m_Drawn = text;
}

void ProgressBar::wipe()
{
    if (m_Drawn.empty())
        return;
    m_Out << '\r' << std::string(m_Drawn.size(), ' ') << '\r';
    m_Out.flush();
    m_Drawn.clear();
}
