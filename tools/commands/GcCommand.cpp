#include "tools/commands/GcCommand.h"

#include "tools/cache/CacheCleaner.h"
#include "tools/cache/UnfinishedMark.h"
#include "tools/commands/CommandOptions.h"
#include "tools/files/Manifest.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/ProgressBar.h"
#include "tools/terminal/SizeText.h"
#include "tools/terminal/SummaryText.h"
#include "tools/terminal/ToolError.h"

#include <CLI/CLI.hpp>

namespace {

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
    CommandOptions::addJson(*command, m_Json);
    return command;
}

std::vector<Manifest> GcCommand::load() const
{
    std::vector<Manifest> manifests;
    for (const std::string& path : m_Manifests) {
        ToolError::locate(path, [&] {
            manifests.push_back(Manifest::load(path));
            const StorePlace& first = manifests.front().m_Place;
            const StorePlace& place = manifests.back().m_Place;
            const bool sameRoots = m_Roots.empty() ? place.m_Roots == first.m_Roots
                                                   : place.m_Roots.size() == m_Roots.size();
            if (!sameRoots || place.m_Buckets != first.m_Buckets ||
                place.m_SubCache != first.m_SubCache)
                throw ToolError("belongs to another cache; clean one cache at a time");
            if (place.m_SubCache.empty())
                throw ToolError("belongs to the unnamed sub-cache, which cannot be cleaned");
        });
    }
    return manifests;
}

int GcCommand::run(const ToolSettings& settings)
{
    ProgressBar progress = ProgressBar::onStandardError(!settings.m_Verbose);
    ErrorReport errors(progress);
    const std::vector<Manifest> manifests = load();
    if (m_Apply && qEnvironmentVariableIsSet(s_Switch))
        throw ToolError(std::string("the environment variable ") + s_Switch +
                        " disables collection; unset it");
    for (const Manifest& manifest : manifests)
        CommandOptions::requireMemory(m_Memory, manifest.largestBlock());
    StorePlace place = manifests.front().m_Place;
    if (!m_Roots.empty())
        place.m_Roots = m_Roots;
    const auto store = ToolStore::open(
        place, {ToolStore::Roots::Expect, m_Memory, 0, RootLock::Use::Alone}, settings.m_GiveUp);
    for (const std::string& path : UnfinishedMark::find(place))
        errors.note(path, UnfinishedMark::textOf(path));
    CacheCleaner cleaner(place, *store, errors, progress);
    bool complete = true;
    for (const Manifest& manifest : manifests)
        complete = complete && cleaner.keep(manifest);
    cleaner.count();
    const CacheCleaner::Sum found = cleaner.unreferenced();
    if (!complete)
        errors.add("nothing is removed, as the blocks to keep are not all known; ingest the files "
                   "above again and replace their manifest");
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
        summary.addLine("Nothing was removed. Pass --apply to remove unreferenced files.");
    return summary.print(m_Json, errors);
}
