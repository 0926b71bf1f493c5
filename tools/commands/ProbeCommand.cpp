#include "tools/commands/ProbeCommand.h"

#include "tools/cache/RootProbe.h"
#include "tools/commands/CommandOptions.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/ProgressBar.h"
#include "tools/terminal/SummaryText.h"

#include <CLI/CLI.hpp>

#include <QFile>
#include <QJsonArray>
#include <QJsonObject>

namespace {

const char* const s_Footer = "Exit status:\n"
                             "  0  a store can be set up there\n"
                             "  1  a check failed\n"
                             "  2  the command line is invalid\n";

} // namespace

CLI::App* ProbeCommand::addTo(CLI::App& application)
{
    CLI::App* const command =
        application.add_subcommand("probe", "Check whether a store can be set up on cache roots");
    CommandOptions::addRoots(*command, m_Roots);
    CommandOptions::addSize(*command, "--space", m_Space, "Free space that each root needs");
    CommandOptions::addJson(*command, m_Json);
    command->footer(s_Footer);
    return command;
}

int ProbeCommand::run(const ToolSettings&)
{
    ProgressBar progress = ProgressBar::onStandardError(false);
    ErrorReport errors(progress);
    const RootProbe probe(m_Roots, m_Space);
    SummaryText summary;
    QJsonArray list;
    for (const RootProbe::Check& check : probe.checks()) {
        const std::string where = check.m_Root.empty() ? "" : PathText::printable(check.m_Root);
        summary.addLine((check.m_Fit ? "ok      " : "FAILED  ") + where +
                        (where.empty() ? "" : ": ") + check.m_Name + ": " + check.m_Text);
        QJsonObject entry;
        entry[QStringLiteral("root")] = QFile::decodeName(check.m_Root.c_str());
        entry[QStringLiteral("check")] = QString::fromStdString(check.m_Name);
        entry[QStringLiteral("fit")] = check.m_Fit;
        entry[QStringLiteral("text")] = QString::fromStdString(check.m_Text);
        list.append(entry);
    }
    summary.addJson(QStringLiteral("checks"), list);
    summary.addJson(QStringLiteral("fit"), probe.isFit());
    if (summary.print(m_Json, errors) != ExitCode::Success)
        return ExitCode::Environment;
    return probe.isFit() ? ExitCode::Success : ExitCode::Damage;
}
