#include "tools/commands/GcCommand.h"

#include "manager/ZebDataBlockManager.h"
#include "tools/cache/CacheCleaner.h"
#include "tools/cache/ToolStore.h"
#include "tools/commands/CommandOptions.h"
#include "tools/files/Manifest.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/ExitCode.h"
#include "tools/terminal/ProgressBar.h"
#include "tools/terminal/SizeText.h"
#include "tools/terminal/SummaryText.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <memory>

namespace {

const char* const s_Switch = "ZEBA_TDX_GARBAGE_COLLECTION_DISABLED";

} // namespace

GcCommand::GcCommand()
    : m_Memory(ZebDataBlockManager::defaultCacheSize()), m_Apply(false), m_Json(false)
{}

CLI::App* GcCommand::addTo(CLI::App& application)
{
    CLI::App* const command = application.add_subcommand(
        "gc", "Remove from a cache what no manifest names; only tells what that is unless --apply");
    CommandOptions::addPaths(*command, "MANIFEST", m_Manifests,
                             "All manifests whose files are to be kept");
    CommandOptions::addRoots(*command, m_Roots,
                             "Cache root, once for each (default: those of the first manifest)");
    CommandOptions::addMemory(*command, m_Memory);
    command->add_flag("--apply", m_Apply, "Remove the files");
    command->add_flag("--json", m_Json, "Print the summary as one JSON object");
    return command;
}

bool GcCommand::load(std::vector<Manifest>& manifests, ErrorReport& errors) const
{
    for (const std::string& path : m_Manifests) {
        Manifest manifest;
        const std::string reason = manifest.load(path);
        if (!reason.empty()) {
            errors.add(path, reason);
            return false;
        }
        manifests.push_back(std::move(manifest));
        const StorePlace& first = manifests.front().m_Place;
        const StorePlace& place = manifests.back().m_Place;
        const bool sameRoots = m_Roots.empty() ? place.m_Roots == first.m_Roots
                                               : place.m_Roots.size() == m_Roots.size();
        if (!sameRoots || place.m_Buckets != first.m_Buckets ||
            place.m_SubCache != first.m_SubCache) {
            errors.add(path, "is of another cache");
            return false;
        }
    }
    if (manifests.front().m_Place.m_SubCache.empty()) {
        errors.add("a cache without a sub-cache is never cleaned");
        return false;
    }
    return true;
}

int GcCommand::run(const ToolSettings& settings)
{
    ProgressBar progress = ProgressBar::onStandardError(!settings.m_Verbose);
    ErrorReport errors(progress);
    std::vector<Manifest> manifests;
    if (!load(manifests, errors))
        return ExitCode::Failed;
    if (m_Apply && qEnvironmentVariableIsSet(s_Switch)) {
        errors.add(std::string("the environment variable ") + s_Switch + " forbids it");
        return ExitCode::Failed;
    }
    for (const Manifest& manifest : manifests) {
        if (manifest.largestBlock() > m_Memory) {
            throw CLI::ValidationError("--memory", SizeText::print(m_Memory) +
                                                       " hold no block of " +
                                                       SizeText::print(manifest.largestBlock()) +
                                                       ", which a manifest has");
        }
    }
    return clean(manifests, errors, progress);
}

int GcCommand::clean(const std::vector<Manifest>& manifests, ErrorReport& errors,
                     ProgressBar& progress)
{
    StorePlace place = manifests.front().m_Place;
    if (!m_Roots.empty())
        place.m_Roots = m_Roots;
    std::string reason;
    const std::unique_ptr<ToolStore> store = ToolStore::open(
        place, {ToolStore::Roots::Expect, m_Memory, 0, RootLock::Use::Alone}, reason);
    if (store == nullptr) {
        errors.add(reason);
        return ExitCode::Failed;
    }
    CacheCleaner cleaning(place, *store, errors, progress);
    const bool whole = std::all_of(manifests.begin(), manifests.end(),
                                   [&](const Manifest& one) { return cleaning.keep(one); });
    cleaning.count();
    const CacheCleaner::Sum found = cleaning.rest();
    if (!whole)
        errors.add("nothing is removed, as not all that is to be kept is known");
    else if (m_Apply && !cleaning.removeRest())
        errors.add("some files could not be removed");

    SummaryText summary;
    const CacheCleaner::Sum& left = cleaning.rest();
    summary.addCount(QStringLiteral("kept_files"), "Kept", cleaning.kept().m_Files,
                     "files, " + SizeText::print(cleaning.kept().m_Bytes));
    summary.addCount(QStringLiteral("rest_files"), m_Apply ? "Not named" : "To be removed",
                     found.m_Files, "files, " + SizeText::print(found.m_Bytes));
    if (m_Apply)
        summary.addCount(QStringLiteral("removed_files"), "Removed", found.m_Files - left.m_Files,
                         "files, " + SizeText::print(found.m_Bytes - left.m_Bytes));
    summary.addJson(QStringLiteral("kept_bytes"), cleaning.kept().m_Bytes);
    summary.addJson(QStringLiteral("rest_bytes"), found.m_Bytes);
    summary.addJson(QStringLiteral("removed_bytes"),
                    m_Apply ? found.m_Bytes - left.m_Bytes : qint64(0));
    summary.addJson(QStringLiteral("errors"), errors.count());
    if (!m_Apply && whole)
        summary.addLine("Nothing was removed; --apply does it.");
    return summary.print(m_Json, errors);
}
