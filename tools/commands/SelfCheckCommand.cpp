#include "tools/commands/SelfCheckCommand.h"

#include "selfcheck/TdxTester.h"
#include "tools/commands/SampleData.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/ExitCode.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/ProgressBar.h"

#include <CLI/CLI.hpp>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

#include <iomanip>
#include <iostream>

namespace {

constexpr int s_TitleColumns = 42;
constexpr int s_SecondsColumns = 8;
constexpr double s_MillisecondsPerSecond = 1000.0;

// What the user reads about a row.
std::string outcomeText(bool isRight, const SelfCheckRows::Row& row, const std::string& words)
{
    if (!isRight)
        return words.empty() ? "FAILED" : "FAILED: " + PathText::printable(words);
    if (row.m_Words == nullptr)
        return "passed";
    return std::string("fails by design: ") + row.m_Reason;
}

void printRow(const SelfCheckRows::Row& row, double seconds, const std::string& outcome)
{
    std::cout << std::left << std::setw(s_TitleColumns) << row.title() << std::right
              << std::setw(s_SecondsColumns) << std::fixed << std::setprecision(2) << seconds
              << " s  " << outcome << std::endl;
}

} // namespace

SelfCheckCommand::SelfCheckCommand() : m_All(false), m_Json(false), m_InProcess(false) {}

CLI::App* SelfCheckCommand::addTo(CLI::App& application)
{
    CLI::App* const command = application.add_subcommand(
        "selfcheck", "Prove on this machine that the store works; takes minutes");
    command->add_option("--data", m_Data, "Folder that sampledata made (default: made for the run)")
        ->type_name("DIR");
    command->add_option("names", m_Names, "Only these checks, also as NAME:MIB")->type_name("");
    command->add_flag("--all", m_All, "Also the library's own run, which ends at its known place");
    command->add_flag("--json", m_Json, "Print one JSON object");
    command->add_flag("--in-process", m_InProcess, "All in this process, not each in its own");
    return command;
}

std::vector<SelfCheckRows::Row> SelfCheckCommand::wantedRows() const
{
    std::vector<SelfCheckRows::Row> rows;
    for (const std::string& name : m_Names) {
        const std::vector<SelfCheckRows::Row> found = SelfCheckRows::named(name);
        if (found.empty())
            throw CLI::ValidationError("names", "'" + name + "' is no check");
        rows.insert(rows.end(), found.begin(), found.end());
    }
    if (m_Names.empty())
        rows = SelfCheckRows::all();
    if (m_All)
        rows.push_back(SelfCheckRows::wholeRun());
    return rows;
}

int SelfCheckCommand::run(const ToolSettings& settings)
{
    const std::vector<SelfCheckRows::Row> rows = wantedRows();
    // The rows' own messages would be drawn over.
    ProgressBar progress = ProgressBar::onStandardError(!m_Json && !settings.m_Verbose);
    ErrorReport errors(progress);
    QTemporaryDir made;
    QString folder = QFileInfo(QFile::decodeName(m_Data.c_str())).absoluteFilePath();
    if (m_Data.empty()) {
        folder = made.path();
        const QString failed = SampleData::write(folder);
        if (!failed.isEmpty()) {
            errors.add(QFile::encodeName(failed).toStdString(), "cannot be written");
            return ExitCode::Failed;
        }
    }
    QJsonArray list;
    int wrong = 0;
    int byDesign = 0;
    for (const SelfCheckRows::Row& row : rows) {
        progress.begin("Checking", static_cast<qint64>(rows.size()), ProgressBar::Unit::Things);
        progress.show(list.size(), row.title());
        QElapsedTimer timer;
        timer.start();
        const Result result = m_InProcess ? runHere(folder, row) : runApart(folder, row, settings);
        const double seconds = static_cast<double>(timer.elapsed()) / s_MillisecondsPerSecond;
        const std::string outcome = outcomeText(result.m_IsRight, row, result.m_Words);
        wrong += result.m_IsRight ? 0 : 1;
        byDesign += result.m_IsRight && row.m_Words != nullptr ? 1 : 0;
        list.append(QJsonObject{{"check", QString::fromStdString(row.title())},
                                {"seconds", seconds},
                                {"right", result.m_IsRight},
                                {"outcome", QString::fromStdString(outcome)}});
        // The row goes to standard output, where the bar may stand in the same terminal.
        progress.end();
        if (!m_Json)
            printRow(row, seconds, outcome);
    }
    const int total = static_cast<int>(rows.size());
    if (m_Json) {
        const QJsonObject object{{"rows", list},
                                 {"passed", total - wrong - byDesign},
                                 {"fail_by_design", byDesign},
                                 {"failed", wrong}};
        std::cout << QJsonDocument(object).toJson().toStdString();
    } else {
        std::cout << total << " checks: " << total - wrong - byDesign << " passed, " << byDesign
                  << " failed by design, " << wrong << " failed.\n";
    }
    return wrong == 0 ? ExitCode::Success : ExitCode::Failed;
}

SelfCheckCommand::Result SelfCheckCommand::runHere(const QString& folder,
                                                   const SelfCheckRows::Row& row) const
{
    TdxTester tester;
    tester.setTestDataDirectory(folder);
    const SelfCheckRows::Outcome outcome = SelfCheckRows::run(tester, row);
    return {outcome.isRight(row), outcome.m_LastLine};
}

SelfCheckCommand::Result SelfCheckCommand::runApart(const QString& folder,
                                                    const SelfCheckRows::Row& row,
                                                    const ToolSettings& settings) const
{
    QStringList arguments = {QStringLiteral("selfcheck"),
                             QStringLiteral("--in-process"),
                             QStringLiteral("--json"),
                             QStringLiteral("--data"),
                             folder,
                             QString::fromStdString(row.title())};
    if (settings.m_Verbose)
        arguments.append(QStringLiteral("--verbose"));
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(QCoreApplication::applicationFilePath(), arguments);
    // No limit: a slow machine may take as long as it needs.
    if (!process.waitForStarted() || !process.waitForFinished(-1))
        return {false, process.errorString().toStdString()};
    const QJsonObject object = QJsonDocument::fromJson(process.readAllStandardOutput()).object();
    const QJsonArray rows = object[QStringLiteral("rows")].toArray();
    if (process.exitStatus() != QProcess::NormalExit || rows.size() != 1)
        return {false, "its process ended in the middle"};
    const QJsonObject result = rows.first().toObject();
    // The child has put the words into a sentence of its own.
    QString words = result[QStringLiteral("outcome")].toString();
    words.remove(QStringLiteral("FAILED: "));
    return {result[QStringLiteral("right")].toBool(), words.toStdString()};
}
