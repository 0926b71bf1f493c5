#include "tools/commands/RepairCommand.h"

#include "tools/cache/CacheFiles.h"
#include "tools/cache/CacheVerifier.h"
#include "tools/cache/CacheWarnings.h"
#include "tools/cache/Quarantine.h"
#include "tools/cache/RootLock.h"
#include "tools/commands/CheckOptions.h"
#include "tools/commands/CommandOptions.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/ExitCode.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/ProgressBar.h"
#include "tools/terminal/SummaryText.h"

#include <CLI/CLI.hpp>

#include <exception>

namespace {

const char* const s_Footer =
    "No process may use the cache meanwhile. Adding the same bytes again, as by zebtdx ingest,\n"
    "then heals the cache: it writes what is missing.\n"
    "\n"
    "Exit status:\n"
    "  0  no damage, or all damaged files have been moved away\n"
    "  1  damage was found, and is still there\n"
    "  2  the command line makes no sense, the cache is in use, or something could not be\n"
    "     checked\n";

} // namespace

RepairCommand::RepairCommand()
    : m_Quarantine("zebtdx-quarantine"),
      m_LargestBlock(BlockVerifier::s_MostBlockBytes),
      m_Threads(CommandOptions::defaultThreads()),
      m_Apply(false),
      m_Json(false)
{}

CLI::App* RepairCommand::addTo(CLI::App& application)
{
    CLI::App* const command = application.add_subcommand(
        "repair", "Move damaged files out of a cache; only tells which unless --apply");
    CheckOptions::addPlace(*command, m_Place);
    command
        ->add_option("--quarantine", m_Quarantine,
                     "Folder outside of the roots for what is moved (default " + m_Quarantine +
                         ", below the working folder)")
        ->type_name("DIR");
    CheckOptions::addThreads(*command, m_Threads);
    CheckOptions::addLargestBlock(*command, m_LargestBlock);
    command->add_flag("--apply", m_Apply, "Move the files");
    command->add_flag("--json", m_Json, "Print one JSON object");
    command->footer(s_Footer);
    return command;
}

int RepairCommand::run(const ToolSettings&)
{
    CommandOptions::settlePlace(m_Place);
    ProgressBar progress = ProgressBar::onStandardError(true);
    ErrorReport errors(progress);
    if (!CheckOptions::areFolders(m_Place, errors))
        return ExitCode::Environment;
    const std::string reason = Quarantine(m_Quarantine).whyNot(m_Place.m_Roots);
    if (!reason.empty()) {
        errors.add(m_Quarantine, reason);
        return ExitCode::Environment;
    }
    RootLock lock;
    std::string holder;
    if (!lock.take(m_Place.m_Roots, RootLock::Use::Alone, holder)) {
        errors.add(holder);
        return ExitCode::Environment;
    }
    try {
        return repair(errors, progress);
    } catch (const std::exception& error) {
        errors.add(error.what());
        return ExitCode::Environment;
    }
}

int RepairCommand::repair(ErrorReport& errors, ProgressBar& progress)
{
    CacheWarnings remarks(errors);
    const CacheFiles files(m_Place, m_Place.m_SubCache.empty(), errors, remarks);
    CacheVerifier found({m_Threads, false, m_LargestBlock, 100}, files, errors, remarks, progress);
    found.run();
    const bool refused = m_Apply && !isThisCache(files, found);
    qint64 moved = 0;
    if (refused) {
        errors.add("most files do not lie where --root and --buckets say, so these are not those "
                   "of the cache; nothing is moved");
    } else if (m_Apply) {
        moved = move(files, found, errors);
    }
    SummaryText summary;
    found.addTo(summary);
    remarks.addTo(summary);
    summary.addCount(QStringLiteral("moved"), "Moved", moved);
    summary.addCount(QStringLiteral("errors"), "Errors", errors.count());
    const auto damaged = static_cast<qint64>(found.damage().size());
    if (!m_Apply && damaged > 0)
        summary.addLine("Nothing was moved; --apply does it.");
    const bool complete = summary.print(m_Json, errors) == ExitCode::Success;
    if (refused)
        return ExitCode::Environment;
    if (damaged > moved)
        return ExitCode::Damage;
    return complete ? ExitCode::Success : ExitCode::Environment;
}

bool RepairCommand::isThisCache(const CacheFiles& files, const CacheVerifier& found)
{
    const qint64 elsewhere =
        found.damaged(BlockFinding::Misplaced) + found.damaged(BlockFinding::NoPlace);
    return 2 * elsewhere <= static_cast<qint64>(files.files().size());
}

qint64 RepairCommand::move(const CacheFiles& files, const CacheVerifier& found,
                           ErrorReport& errors) const
{
    const Quarantine quarantine(m_Quarantine);
    qint64 moved = 0;
    for (const CacheVerifier::Damage& damage : found.damage()) {
        if (!damage.m_Verdict.isToBeMoved())
            continue;
        const CacheFiles::File& file = files.files()[damage.m_File];
        std::string target;
        const std::string reason = quarantine.move(files, file, target);
        if (!reason.empty()) {
            errors.add(files.pathOf(file), reason);
            continue;
        }
        errors.note(PathText::printable(files.pathOf(file)) + ": is now " +
                    PathText::printable(target));
        ++moved;
    }
    return moved;
}
