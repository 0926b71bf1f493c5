#include "tools/terminal/ErrorReport.h"

#include "tools/terminal/ExitCode.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/ProgressBar.h"

#include <iostream>

ErrorReport::ErrorReport(ProgressBar& lines) : m_Lines(lines) {}

void ErrorReport::add(const std::string& path, const std::string& reason)
{
    m_Count.fetch_add(1);
    note(path, reason);
}

void ErrorReport::add(const std::string& reason)
{
    m_Count.fetch_add(1);
    note(reason);
}

void ErrorReport::note(const std::string& path, const std::string& text)
{
    note(PathText::printable(path) + ": " + text);
}

void ErrorReport::note(const std::string& text)
{
    m_Lines.printLine("zebtdx: " + text);
}

void ErrorReport::endBar()
{
    m_Lines.end();
}

void ErrorReport::flushOutput()
{
    std::cout.flush();
    if (!std::cout)
        add("standard output cannot be written; check where it is redirected to");
}

int ErrorReport::status() const
{
    return count() == 0 ? ExitCode::Success : ExitCode::Failed;
}
