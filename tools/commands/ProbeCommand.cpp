#include "tools/commands/ProbeCommand.h"

#include "tools/cache/RootProbe.h"
#include "tools/cache/StorePlace.h"
#include "tools/commands/CommandOptions.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/ExitCode.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/ProgressBar.h"
#include "tools/terminal/SummaryText.h"

#include <CLI/CLI.hpp>

#include <QFile>
#include <QJsonArray>
#include <QJsonObject>

namespace {

constexpr qint64 s_DefaultSpace = 1024LL * 1024 * 1024;

const char* const s_Footer = "Exit status:\n"
                             "  0  a store can be set up there\n"
                             "  1  something is in the way\n"
                             "  2  the command line makes no sense\n";

} // namespace

ProbeCommand::ProbeCommand() : m_Space(s_DefaultSpace), m_Json(false) {}

CLI::App* ProbeCommand::addTo(CLI::App& application)
{
    CLI::App* const command =
        application.add_subcommand("probe", "Look whether a store can be set up on cache roots");
    CommandOptions::addRoots(*command, m_Roots,
                             "Cache root, once for each (default " + StorePlace::defaultRoot() +
                                 ", below the working folder)");
    CommandOptions::addSize(*command, "--space", m_Space, "Least free space of each root");
    command->add_flag("--json", m_Json, "Print one JSON object");
    command->footer(s_Footer);
    return command;
}

int ProbeCommand::run(const ToolSettings&)
{
    ProgressBar progress = ProgressBar::onStandardError(false);
    ErrorReport errors(progress);
    const std::vector<std::string> roots =
        m_Roots.empty() ? std::vector<std::string>{StorePlace::defaultRoot()} : m_Roots;
    const RootProbe probe(roots, m_Space);
    SummaryText summary;
    QJsonArray list;
    for (const RootProbe::Check& check : probe.checks()) {
        const std::string where = check.m_Root.empty() ? "" : PathText::printable(check.m_Root);
        summary.addLine((check.m_Fit ? "ok      " : "FAILED  ") + where +
                        (where.empty() ? "" : ": ") + check.m_Name + ": " + check.m_Text);
        QJsonObject one;
        one[QStringLiteral("root")] = QFile::decodeName(check.m_Root.c_str());
        one[QStringLiteral("check")] = QString::fromStdString(check.m_Name);
        one[QStringLiteral("fit")] = check.m_Fit;
        one[QStringLiteral("text")] = QString::fromStdString(check.m_Text);
        list.append(one);
    }
    summary.addJson(QStringLiteral("checks"), list);
    summary.addJson(QStringLiteral("fit"), probe.isFit());
    if (summary.print(m_Json, errors) != ExitCode::Success)
        return ExitCode::Environment;
    return probe.isFit() ? ExitCode::Success : ExitCode::Damage;
}
