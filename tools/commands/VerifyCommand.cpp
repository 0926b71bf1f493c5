#include "tools/commands/VerifyCommand.h"

#include "tools/cache/CacheFiles.h"
#include "tools/cache/CacheLayout.h"
#include "tools/cache/CacheVerifier.h"
#include "tools/cache/CacheWarnings.h"
#include "tools/cache/RootLock.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/ProgressBar.h"
#include "tools/terminal/SummaryText.h"
#include "tools/terminal/ToolError.h"

#include <CLI/CLI.hpp>

#include <QElapsedTimer>

#include <cerrno>

namespace {

const char* const s_Footer =
    "Exit status:\n"
    "  0  no damage, and every file was checked\n"
    "  1  damage was found\n"
    "  2  the command line is invalid, the files do not fit --root and --buckets, or a file could\n"
    "     not be checked and the others are sound\n";

} // namespace

CLI::App* VerifyCommand::addTo(CLI::App& application)
{
    CLI::App* const command = application.add_subcommand(
        "verify", "Find damaged files in a cache on disk; changes nothing");
    CommandOptions::addCheckPlace(*command, m_Place);
    command->add_flag("--fast", m_Fast, "Check places and headers only; decompress nothing");
    CommandOptions::addNumber(*command, "--sample", m_Percent, 1, 100,
                              "Percentage of files to check, chosen anew each time");
    CommandOptions::addCheckThreads(*command, m_Threads);
    CommandOptions::addLargestBlock(*command, m_LargestBlock);
    CommandOptions::addJson(*command, m_Json);
    command->footer(s_Footer);
    return command;
}

int VerifyCommand::run(const ToolSettings&)
{
    ProgressBar progress = ProgressBar::onStandardError(true);
    ErrorReport errors(progress);
    m_Place.requireDirectories();
    RootLock lock;
    const auto used = ToolError::of([&] { lock.take(m_Place.m_Roots, RootLock::Use::Reading); });
    if (used && used->code() != EWOULDBLOCK)
        throw ToolError(*used);
    if (used)
        errors.note(std::string(used->what()) + ": files that it is writing may look damaged now");
    CacheWarnings warnings(errors);
    QElapsedTimer timer;
    timer.start();
    const CacheFiles files(m_Place, m_Place.m_SubCache.empty(), errors, warnings);
    CacheLayout::require(files);
    CacheVerifier verifier({m_Threads, m_Fast, m_LargestBlock, m_Percent}, files, errors, warnings,
                           progress);
    verifier.run();

    SummaryText summary;
    verifier.addTo(summary);
    warnings.addTo(summary);
    summary.addRate({}, "MB/s checked", verifier.bytes(), SummaryText::secondsOf(timer));
    summary.addCount(QStringLiteral("errors"), "Errors", errors.count());
    const bool damaged = !verifier.damage().empty();
    if (damaged)
        summary.addLine("Run zebtdx repair to move damaged files out of the cache.");
    const bool complete = summary.print(m_Json, errors) == ExitCode::Success;
    if (damaged)
        return ExitCode::Damage;
    return complete ? ExitCode::Success : ExitCode::Environment;
}
