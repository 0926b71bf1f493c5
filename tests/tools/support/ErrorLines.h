#pragma once

#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/ProgressBar.h"

#include <sstream>
#include <string>
#include <vector>

/// An error report that keeps its lines, with a progress bar that shows nothing.
class ErrorLines
{
public:
    ErrorLines() : m_Progress(m_Stream, false, 80), m_Report(m_Progress) {}

    ErrorReport& report() { return m_Report; }
    ProgressBar& progress() { return m_Progress; }

    std::vector<std::string> lines() const
    {
        std::vector<std::string> result;
        std::istringstream stream(m_Stream.str());
        for (std::string line; std::getline(stream, line);)
            result.push_back(line);
        return result;
    }

private:
    std::ostringstream m_Stream;
    ProgressBar m_Progress;
    ErrorReport m_Report;
};
