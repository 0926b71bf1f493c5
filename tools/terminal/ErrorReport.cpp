#include "tools/terminal/ErrorReport.h"

#include "tools/terminal/PathText.h"
#include "tools/terminal/ProgressBar.h"

ErrorReport::ErrorReport(ProgressBar& lines) : m_Lines(lines), m_Count(0) {}

void ErrorReport::add(const std::string& path, const std::string& reason)
{
    add(PathText::printable(path) + ": " + reason);
}

void ErrorReport::add(const std::string& reason)
{
    m_Count.fetch_add(1);
    note(reason);
}

void ErrorReport::note(const std::string& reason)
{
    m_Lines.printLine("zebtdx: " + reason);
}

qint64 ErrorReport::count() const
{
    return m_Count.load();
}
