#include "tools/commands/SelfCheckCommand.h"

#include "selfcheck/TdxTester.h"
#include "tools/commands/CommandOptions.h"
#include "tools/commands/SampleData.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/ProgressBar.h"
#include "tools/terminal/StopRequest.h"
#include "tools/terminal/ToolError.h"

#include <CLI/CLI.hpp>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMutex>
#include <QMutexLocker>
#include <QProcess>
#include <QScopeGuard>
#include <QTemporaryDir>

#include <iomanip>
#include <iostream>

namespace {

constexpr int s_TitleColumns = 42;
constexpr int s_SecondsColumns = 8;
constexpr double s_MillisecondsPerSecond = 1000.0;
constexpr int s_PollMs = 100;

// The last line that the library logged. A leaf lock guards the text.
QMutex s_Mutex;
QString s_LastLine;
QtMessageHandler s_Next = nullptr;

void noteLine(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    {
        const QMutexLocker locker(&s_Mutex);
        s_LastLine = text;
    }
    if (s_Next != nullptr)
        s_Next(type, context, text);
}

// The row's outcome for people.
std::string outcomeText(bool isExpected, const ZebSelfCheckTable::Row& row,
                        const std::string& lastLine)
{
    if (!isExpected)
        return lastLine.empty() ? "FAILED" : "FAILED: " + PathText::printable(lastLine);
    if (!row.failsByDesign())
        return "passed";
    return std::string("fails by design: ") + row.m_FailureReason;
}

void printRow(const std::string& title, double seconds, const std::string& outcome)
{
    std::cout << std::left << std::setw(s_TitleColumns) << title << std::right
              << std::setw(s_SecondsColumns) << std::fixed << std::setprecision(2) << seconds
              << " s  " << outcome << std::endl;
}

// Where the data is; created in `temporary` unless the user has some.
QString dataDirectory(const std::string& given, const QTemporaryDir& temporary)
{
    if (!given.empty())
        return QFileInfo(QFile::decodeName(given.c_str())).absoluteFilePath();
    // Without a directory its path is empty, and the data would go to the root of the file system.
    if (!temporary.isValid())
        throw ToolError(
            "cannot create a temporary directory: " + temporary.errorString().toStdString() +
            "; set TMPDIR to another directory");
    const QString failed = SampleData::write(temporary.path());
    if (!failed.isEmpty())
        throw ToolError(PathText::printable(QFile::encodeName(failed).toStdString()) +
                        ": cannot be written; make room, or set TMPDIR to another directory");
    return temporary.path();
}

} // namespace

CLI::App* SelfCheckCommand::addTo(CLI::App& application)
{
    CLI::App* const command = application.add_subcommand(
        "selfcheck", "Check that the store works on this machine; takes minutes");
    command
        ->add_option("--data", m_Data,
                     "Directory that sampledata created (default: a temporary one)")
        ->type_name("DIR");
    command->add_option("NAME", m_Names, "Run only these checks, NAME or NAME:MIB")->type_name("");
    command->add_flag("--all", m_All,
                      "Also run the library's whole sequence, which ends at a known check");
    CommandOptions::addJson(*command, m_Json);
    command->add_flag("--in-process", m_InProcess,
                      "Run all checks in this process, not each in a separate one; a signal "
                      "ends it at once");
    return command;
}

QVector<ZebSelfCheckTable::Row> SelfCheckCommand::wantedRows() const
{
    QVector<Row> rows;
    for (const std::string& name : m_Names) {
        const QVector<Row> found = ZebSelfCheckTable::named(name);
        if (found.empty())
            throw CLI::ValidationError("NAME", "'" + name + "' is not a check");
        rows += found;
    }
    if (m_Names.empty())
        rows = ZebSelfCheckTable::rows();
    if (m_All)
        rows.append(ZebSelfCheckTable::wholeRun());
    return rows;
}

int SelfCheckCommand::run(const ToolSettings& settings)
{
    const QVector<Row> rows = wantedRows();
    // A bar would overwrite the messages of the rows.
    ProgressBar progress = ProgressBar::onStandardError(!m_Json && !settings.m_Verbose);
    const QTemporaryDir temporary;
    const QString directory = dataDirectory(m_Data, temporary);
    QJsonArray list;
    int failed = 0;
    int byDesign = 0;
    for (const Row& row : rows) {
        progress.begin("Checking", rows.size(), ProgressBar::Unit::Items);
        progress.show(list.size(), row.title());
        QElapsedTimer timer;
        timer.start();
        const Result result =
            m_InProcess ? runHere(directory, row) : runApart(directory, row, settings);
        const double seconds = static_cast<double>(timer.elapsed()) / s_MillisecondsPerSecond;
        const std::string outcome = outcomeText(result.m_IsExpected, row, result.m_LastLine);
        failed += result.m_IsExpected ? 0 : 1;
        byDesign += result.m_IsExpected && row.failsByDesign() ? 1 : 0;
        list.append(QJsonObject{{"check", QString::fromStdString(row.title())},
                                {"seconds", seconds},
                                {"expected", result.m_IsExpected},
                                {"last_line", QString::fromStdString(result.m_LastLine)},
                                {"outcome", QString::fromStdString(outcome)}});
        // The line goes to standard output, which may be the terminal of the bar.
        progress.end();
        if (!m_Json)
            printRow(row.title(), seconds, outcome);
    }
    const int passed = rows.size() - failed - byDesign;
    if (m_Json) {
        const QJsonObject object{
            {"rows", list}, {"passed", passed}, {"failed_by_design", byDesign}, {"failed", failed}};
        std::cout << QJsonDocument(object).toJson().toStdString();
    } else {
        std::cout << rows.size() << " checks: " << passed << " passed, " << byDesign
                  << " failed by design, " << failed << " failed.\n";
    }
    return failed == 0 ? ExitCode::Success : ExitCode::Failed;
}

SelfCheckCommand::Result SelfCheckCommand::runHere(const QString& directory, const Row& row)
{
    TdxTester tester;
    tester.setTestDataDirectory(directory);
    s_LastLine.clear();
    s_Next = qInstallMessageHandler(&noteLine);
    const auto restored = qScopeGuard([] { qInstallMessageHandler(s_Next); });
    const bool passed = row.run(tester);
    const QMutexLocker locker(&s_Mutex);
    const std::string lastLine = s_LastLine.toStdString();
    return {row.isExpected(passed, lastLine), lastLine};
}

SelfCheckCommand::Result SelfCheckCommand::runApart(const QString& directory, const Row& row,
                                                    const ToolSettings& settings)
{
    QStringList arguments = {QStringLiteral("selfcheck"),
                             QStringLiteral("--in-process"),
                             QStringLiteral("--json"),
                             QStringLiteral("--data"),
                             directory,
                             QString::fromStdString(row.title())};
    if (settings.m_Verbose)
        arguments.append(QStringLiteral("--verbose"));
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(QCoreApplication::applicationFilePath(), arguments);
    // No limit: a slow machine may take as long as it needs.
    if (!process.waitForStarted())
        return {false, process.errorString().toStdString()};
    while (!process.waitForFinished(s_PollMs)) {
        // The destructor ends the process, too.
        StopRequest::check();
        if (process.error() != QProcess::Timedout)
            return {false, process.errorString().toStdString()};
    }
    const QJsonObject object = QJsonDocument::fromJson(process.readAllStandardOutput()).object();
    const QJsonArray rows = object[QStringLiteral("rows")].toArray();
    if (process.exitStatus() != QProcess::NormalExit || rows.size() != 1)
        return {false, "its process ended early"};
    const QJsonObject result = rows.first().toObject();
    return {result[QStringLiteral("expected")].toBool(),
            result[QStringLiteral("last_line")].toString().toStdString()};
}
