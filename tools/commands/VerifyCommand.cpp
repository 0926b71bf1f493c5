#include "tools/commands/VerifyCommand.h"

#include "tools/cache/CacheFiles.h"
#include "tools/cache/CacheVerifier.h"
#include "tools/cache/CacheWarnings.h"
#include "tools/cache/RootLock.h"
#include "tools/commands/CheckOptions.h"
#include "tools/commands/CommandOptions.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/ExitCode.h"
#include "tools/terminal/ProgressBar.h"
#include "tools/terminal/SummaryText.h"

#include <CLI/CLI.hpp>

#include <QElapsedTimer>

#include <exception>

namespace {

const char* const s_Footer =
    "Exit status:\n"
    "  0  no damage, and everything could be checked\n"
    "  1  damage was found\n"
    "  2  the command line makes no sense, or something could not be checked, and what could\n"
    "     was not damaged\n";

} // namespace

VerifyCommand::VerifyCommand()
    : m_LargestBlock(BlockVerifier::s_MostBlockBytes),
      m_Threads(CommandOptions::defaultThreads()),
      m_Percent(100),
      m_Fast(false),
      m_Json(false)
{}

CLI::App* VerifyCommand::addTo(CLI::App& application)
{
    CLI::App* const command = application.add_subcommand(
        "verify", "Find damaged files in a cache on disk; changes nothing");
    CheckOptions::addPlace(*command, m_Place);
    command->add_flag("--fast", m_Fast, "Look at places and headers only; decompress nothing");
    CommandOptions::addNumber(*command, "--sample", m_Percent, 1, 100,
                              "Check only so many percent of the files, others each time");
    CheckOptions::addThreads(*command, m_Threads);
    CheckOptions::addLargestBlock(*command, m_LargestBlock);
    command->add_flag("--json", m_Json, "Print one JSON object");
    command->footer(s_Footer);
    return command;
}

int VerifyCommand::run(const ToolSettings&)
{
    CommandOptions::settlePlace(m_Place);
    ProgressBar progress = ProgressBar::onStandardError(true);
    ErrorReport errors(progress);
    if (!CheckOptions::areFolders(m_Place, errors))
        return ExitCode::Environment;
    RootLock lock;
    std::string holder;
    if (!lock.take(m_Place.m_Roots, RootLock::Use::Reading, holder))
        errors.note(holder + "; what is being written now may look damaged");
    try {
        return verify(errors, progress);
    } catch (const std::exception& error) {
        errors.add(error.what());
        return ExitCode::Environment;
    }
}

int VerifyCommand::verify(ErrorReport& errors, ProgressBar& progress)
{
    CacheWarnings remarks(errors);
    QElapsedTimer timer;
    timer.start();
    // The fast check of all files opens each; then a look at it beforehand is not needed.
    const bool opensAll = m_Fast && m_Percent == CacheVerifier::s_All;
    const CacheFiles files(m_Place, m_Place.m_SubCache.empty(), errors, remarks,
                           opensAll ? CacheFiles::Sizes::Unknown : CacheFiles::Sizes::Known);
    CacheVerifier verification({m_Threads, m_Fast, m_LargestBlock, m_Percent}, files, errors,
                               remarks, progress);
    verification.run();

    SummaryText summary;
    verification.addTo(summary);
    remarks.addTo(summary);
    summary.addRate({}, "MB/s", verification.bytes(), SummaryText::secondsOf(timer), "checked in");
    summary.addCount(QStringLiteral("errors"), "Errors", errors.count());
    const bool damaged = !verification.damage().empty();
    if (damaged)
        summary.addLine("Damaged files can be moved away by zebtdx repair.");
    const bool complete = summary.print(m_Json, errors) == ExitCode::Success;
    if (damaged)
        return ExitCode::Damage;
    return complete ? ExitCode::Success : ExitCode::Environment;
}
