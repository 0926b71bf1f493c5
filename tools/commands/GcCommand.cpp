#include "tools/commands/GcCommand.h"

#include "tools/cache/CacheCleaner.h"
#include "tools/cache/UnfinishedMark.h"
#include "tools/commands/CommandOptions.h"
#include "tools/files/ManifestReader.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/ProgressBar.h"
#include "tools/terminal/SizeText.h"
#include "tools/terminal/SummaryText.h"
#include "tools/terminal/ToolError.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <optional>
#include <utility>

namespace {

// Without --force, the files are divided by this, and no more than that is removed.
constexpr qint64 s_LargestShare = 2;

const char* const s_Switch = "ZEBA_TDX_GARBAGE_COLLECTION_DISABLED";

} // namespace

CLI::App* GcCommand::addTo(CLI::App& application)
{
    CLI::App* const command = application.add_subcommand(
        "gc", "Remove blocks that no manifest references; only reports them without --apply");
    CommandOptions::addPaths(*command, "MANIFEST", m_Manifests,
                             "All manifests whose files must be kept");
    CommandOptions::addManifestRoots(*command, m_Roots);
    CommandOptions::addMemory(*command, m_Memory);
    command->add_flag("--apply", m_Apply, "Remove the files");
    command->add_flag("--force", m_Force,
                      "Remove them even if the manifests list no files, or if they are more than "
                      "half of all block files");
    CommandOptions::addJson(*command, m_Json);
    return command;
}

GcCommand::Contents GcCommand::read() const
{
    Contents contents;
    bool isFirst = true;
    for (const std::string& path : m_Manifests) {
        ToolError::locate(path, [&] {
            ManifestReader reader(path);
            const StorePlace& place = reader.head().m_Place;
            if (std::exchange(isFirst, false))
                contents.m_Place = place;
            const StorePlace& first = contents.m_Place;
            const bool sameRoots = m_Roots.empty() ? place.m_Roots == first.m_Roots
                                                   : place.m_Roots.size() == m_Roots.size();
            if (!sameRoots || place.m_Buckets != first.m_Buckets ||
                place.m_SubCache != first.m_SubCache)
                throw ToolError("belongs to another cache; clean one cache at a time");
            if (place.m_SubCache.empty())
                throw ToolError("belongs to the unnamed sub-cache, which cannot be cleaned");
            while (const std::optional<Manifest::File> file = reader.next()) {
                ++contents.m_Files;
                contents.m_LargestBlock =
                    std::max(contents.m_LargestBlock, reader.head().largestBlockOf(*file));
            }
        });
    }
    if (!m_Roots.empty())
        contents.m_Place.m_Roots = m_Roots;
    return contents;
}

std::string GcCommand::whyForce(const Contents& contents, const CacheCleaner& cleaner) const
{
    if (m_Force)
        return {};
    if (contents.m_Files == 0)
        return "the manifests list no files";
    const qint64 lost = cleaner.unreferenced().m_Files;
    const qint64 all = lost + cleaner.kept().m_Files;
    if (lost <= all / s_LargestShare)
        return {};
    return SizeText::grouped(lost) + " of " + SizeText::grouped(all) +
           " block files, more than half, are unreferenced";
}

int GcCommand::run(const ToolSettings& settings)
{
    ProgressBar progress = ProgressBar::onStandardError(!settings.m_Verbose);
    ErrorReport errors(progress);
    const Contents contents = read();
    if (m_Apply && qEnvironmentVariableIsSet(s_Switch))
        throw ToolError(std::string("the environment variable ") + s_Switch +
                        " disables collection; unset it");
    CommandOptions::requireMemory(m_Memory, contents.m_LargestBlock);
    const StorePlace& place = contents.m_Place;
    const ToolStore::Options options =
        m_Apply ? ToolStore::Options{ToolStore::Roots::Expect, m_Memory, 0, RootLock::Use::Alone}
                : ToolStore::Options{ToolStore::Roots::Read, m_Memory};
    const auto store = ToolStore::open(place, options, settings.m_GiveUp);
    for (const std::string& path : UnfinishedMark::find(place))
        errors.note(path, UnfinishedMark::textOf(path));
    CacheCleaner cleaner(place, *store, errors, progress);
    bool complete = true;
    for (const std::string& path : m_Manifests) {
        ToolError::locate(path, [&] {
            ManifestReader manifest(path);
            complete = cleaner.keep(manifest, contents.m_Files) && complete;
        });
    }
    cleaner.count();
    const CacheCleaner::Sum found = cleaner.unreferenced();
    const std::string whyNot = whyForce(contents, cleaner);
    if (!complete)
        errors.add("nothing is removed, as the blocks to keep are not all known; ingest the files "
                   "above again and replace their manifest");
    else if (m_Apply && !whyNot.empty())
        errors.add("nothing is removed, as " + whyNot +
                   "; check that these are all manifests of the cache, then pass --force");
    else if (m_Apply && !cleaner.removeUnreferenced())
        errors.add("some files could not be removed; check their permissions");

    SummaryText summary;
    const CacheCleaner::Sum& left = cleaner.unreferenced();
    const CacheCleaner::Sum removed = {found.m_Files - left.m_Files, found.m_Bytes - left.m_Bytes};
    const auto addSum = [&summary](const char* key, const char* name, const auto& sum) {
        summary.addCount(QLatin1String(key) + QStringLiteral("_files"), name, sum.m_Files,
                         "files, " + SizeText::print(sum.m_Bytes));
        summary.addJson(QLatin1String(key) + QStringLiteral("_bytes"), sum.m_Bytes);
    };
    addSum("kept", "Kept", cleaner.kept());
    addSum("unreferenced", "Unreferenced", found);
    addSum("removed", "Removed", removed);
    summary.addCount(QStringLiteral("errors"), "Errors", errors.count());
    if (!m_Apply && complete)
        summary.addLine("Nothing was removed. Pass --apply to remove unreferenced files" +
                        (whyNot.empty() ? "." : ", and --force, as " + whyNot + "."));
    return summary.print(m_Json, errors);
}
