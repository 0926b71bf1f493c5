#include "tools/commands/StatCommand.h"

#include "tools/cache/CacheStatistics.h"
#include "tools/cache/StorePlace.h"
#include "tools/commands/CommandOptions.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/ProgressBar.h"
#include "tools/terminal/SummaryText.h"

#include <CLI/CLI.hpp>

StatCommand::StatCommand() : m_Json(false) {}

CLI::App* StatCommand::addTo(CLI::App& application)
{
    CLI::App* const command =
        application.add_subcommand("stat", "Tell what lies in a cache on disk");
    CommandOptions::addRoots(*command, m_Roots,
                             "Cache root, once for each (default " + StorePlace::defaultRoot() +
                                 ", below the working folder)");
    CommandOptions::addSubCache(*command, m_SubCache, "Only this part of the cache");
    command->add_flag("--json", m_Json, "Print one JSON object");
    return command;
}

int StatCommand::run(const ToolSettings&)
{
    ProgressBar progress = ProgressBar::onStandardError(false);
    ErrorReport errors(progress);
    const std::vector<std::string> roots =
        m_Roots.empty() ? std::vector<std::string>{StorePlace::defaultRoot()} : m_Roots;
    const CacheStatistics statistics(roots, m_SubCache.empty() ? nullptr : &m_SubCache, errors);
    return statistics.shown().print(m_Json, errors);
}
