#include "tools/commands/StatCommand.h"

#include "tools/cache/CacheStatistics.h"
#include "tools/commands/CommandOptions.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/ProgressBar.h"
#include "tools/terminal/SummaryText.h"

#include <CLI/CLI.hpp>

CLI::App* StatCommand::addTo(CLI::App& application)
{
    CLI::App* const command = application.add_subcommand(
        "stat", "Print files, bytes, compression and distribution of a cache on disk");
    CommandOptions::addRoots(*command, m_Roots);
    CommandOptions::addSubCache(*command, m_SubCache, "Count only this sub-cache (default: all)");
    CommandOptions::addJson(*command, m_Json);
    return command;
}

int StatCommand::run(const ToolSettings&)
{
    ProgressBar progress = ProgressBar::onStandardError(false);
    ErrorReport errors(progress);
    const CacheStatistics statistics(m_Roots, m_SubCache.empty() ? nullptr : &m_SubCache, errors);
    return statistics.shown().print(m_Json, errors);
}
