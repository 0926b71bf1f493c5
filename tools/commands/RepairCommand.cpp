#include "tools/commands/RepairCommand.h"

#include "tools/cache/CacheFiles.h"
#include "tools/cache/CacheLayout.h"
#include "tools/cache/CacheVerifier.h"
#include "tools/cache/CacheWarnings.h"
#include "tools/cache/Quarantine.h"
#include "tools/cache/RootLock.h"
#include "tools/cache/UnfinishedMark.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/ProgressBar.h"
#include "tools/terminal/StopRequest.h"
#include "tools/terminal/SummaryText.h"
#include "tools/terminal/ToolError.h"

#include <CLI/CLI.hpp>

#include <optional>

namespace {

const char* const s_Footer =
    "No other process may use the cache. Afterwards, add the same bytes again, for example with\n"
    "zebtdx ingest: the store then writes the missing files.\n"
    "\n"
    "Exit status:\n"
    "  0  no damage, or all damaged files were moved\n"
    "  1  damaged files are still in the cache\n"
    "  2  the command line is invalid, the cache is in use, the files do not fit --root and\n"
    "     --buckets, or a file could not be checked\n";

} // namespace

CLI::App* RepairCommand::addTo(CLI::App& application)
{
    CLI::App* const command = application.add_subcommand(
        "repair", "Move damaged files out of a cache; only reports them without --apply");
    CommandOptions::addCheckPlace(*command, m_Place);
    command
        ->add_option("--quarantine", m_Quarantine,
                     "Directory for damaged files, outside of the roots (default: " + m_Quarantine +
                         " in the working directory)")
        ->type_name("DIR");
    CommandOptions::addCheckThreads(*command, m_Threads);
    CommandOptions::addLargestBlock(*command, m_LargestBlock);
    command->add_flag("--apply", m_Apply, "Move the files");
    command->add_flag("--move-misplaced", m_MoveMisplaced,
                      "Also move files from places where the store does not look for them; they "
                      "may be sound, of a store with other roots or buckets");
    CommandOptions::addJson(*command, m_Json);
    command->footer(s_Footer);
    return command;
}

int RepairCommand::run(const ToolSettings&)
{
    ProgressBar progress = ProgressBar::onStandardError(true);
    ErrorReport errors(progress);
    m_Place.requireDirectories();
    ToolError::locate(m_Quarantine, [this] { Quarantine(m_Quarantine).require(m_Place.m_Roots); });
    RootLock lock;
    lock.take(m_Place.m_Roots, RootLock::Use::Alone);
    CacheWarnings warnings(errors);
    const CacheFiles files(m_Place, m_Place.m_SubCache.empty(), errors, warnings);
    CacheLayout::require(files);
    CacheVerifier found({m_Threads, false, m_LargestBlock}, files, errors, warnings, progress);
    found.run();
    const qint64 elsewhere =
        found.damaged(ZebBlockFinding::Misplaced) + found.damaged(ZebBlockFinding::NoPlace);
    const bool refused = m_Apply && !isThisCache(files, elsewhere);
    qint64 moved = 0;
    if (refused)
        errors.add("most files are not where --root and --buckets place them; nothing is moved; "
                   "check both");
    else if (m_Apply)
        moved = move(files, found, errors);
    const auto damaged = static_cast<qint64>(found.damage().size());
    // Every file is sound now, whatever an ingest has left.
    if (m_Apply && !refused && moved == damaged && errors.count() == 0 &&
        warnings.count(CacheWarnings::Changed) == 0)
        removeMarks(files, errors);
    SummaryText summary;
    found.addTo(summary);
    warnings.addTo(summary);
    summary.addCount(QStringLiteral("moved"), "Moved", moved);
    summary.addCount(QStringLiteral("errors"), "Errors", errors.count());
    if (!m_Apply && damaged > 0)
        summary.addLine("Nothing was moved. Pass --apply to move damaged files.");
    if (elsewhere > 0 && !m_MoveMisplaced)
        summary.addLine("Misplaced files stay. Pass --move-misplaced to move them as well, once "
                        "--root and --buckets are certain.");
    const bool complete = summary.print(m_Json, errors) == ExitCode::Success;
    if (refused)
        return ExitCode::Environment;
    if (damaged > moved)
        return ExitCode::Damage;
    return complete ? ExitCode::Success : ExitCode::Environment;
}

void RepairCommand::removeMarks(const CacheFiles& files, ErrorReport& errors) const
{
    if (files.marks().empty())
        return;
    const std::optional<ToolError> error = ToolError::of([this, &files] {
        // The check may have read bytes that are not on the disk yet.
        m_Place.syncAll();
        UnfinishedMark::remove(files.marks());
    });
    if (error)
        errors.add(std::string(error->what()) + "; a mark stays; check the disk");
}

bool RepairCommand::isThisCache(const CacheFiles& files, qint64 elsewhere)
{
    return 2 * elsewhere <= static_cast<qint64>(files.files().size());
}

bool RepairCommand::isToMove(ZebBlockFinding finding) const
{
    switch (finding) {
    case ZebBlockFinding::TooLarge:
        // --largest was too low to check it.
        return false;
    case ZebBlockFinding::NoPlace:
    case ZebBlockFinding::Misplaced:
        return m_MoveMisplaced;
    default:
        return true;
    }
}

qint64 RepairCommand::move(const CacheFiles& files, const CacheVerifier& found,
                           ErrorReport& errors) const
{
    const Quarantine quarantine(m_Quarantine);
    qint64 moved = 0;
    for (const CacheVerifier::Damage& damage : found.damage()) {
        StopRequest::check();
        if (!isToMove(damage.m_Verdict.m_Finding))
            continue;
        const CacheFiles::File& file = files.files()[damage.m_File];
        const std::string path = files.pathOf(file);
        const auto error = ToolError::of([&] {
            errors.note(path, "moved to " + PathText::printable(quarantine.move(files, file)));
            ++moved;
        });
        if (error)
            errors.add(path, *error);
    }
    return moved;
}
