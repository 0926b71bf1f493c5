#include "tools/commands/RestoreCommand.h"

#include "data/ZebDataBlock.h"
#include "manager/ZebDataBlockManager.h"
#include "tools/cache/ToolStore.h"
#include "tools/commands/CommandOptions.h"
#include "tools/files/FileRestorer.h"
#include "tools/files/Manifest.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/ExitCode.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/ProgressBar.h"
#include "tools/terminal/SizeText.h"
#include "tools/terminal/SummaryText.h"

#include <CLI/CLI.hpp>

#include <QElapsedTimer>

#include <memory>

RestoreCommand::RestoreCommand()
    : m_Memory(ZebDataBlockManager::defaultCacheSize()),
      m_Threads(CommandOptions::defaultThreads()),
      m_Json(false)
{}

CLI::App* RestoreCommand::addTo(CLI::App& application)
{
    CLI::App* const command =
        application.add_subcommand("restore", "Bring the files of a manifest back from the cache");
    command->add_option("MANIFEST", m_Manifest, "What an ingest wrote")->type_name("")->required();
    command->add_option("--out", m_Out, "Folder for the files; none that is there is touched")
        ->type_name("DIR")
        ->required();
    CommandOptions::addRoots(*command, m_Roots,
                             "Cache root, once for each (default: those of the manifest)");
    CommandOptions::addMemory(*command, m_Memory);
    CommandOptions::addThreads(*command, m_Threads, "How many threads restore");
    command->add_flag("--json", m_Json, "Print the summary as one JSON object");
    return command;
}

int RestoreCommand::run(const ToolSettings& settings)
{
    // The store's messages and a bar would run into each other.
    ProgressBar progress = ProgressBar::onStandardError(!settings.m_Verbose);
    ErrorReport errors(progress);
    Manifest manifest;
    std::string reason = manifest.load(m_Manifest);
    if (!reason.empty()) {
        errors.add(m_Manifest, reason);
        return ExitCode::Failed;
    }
    const std::size_t roots = manifest.m_Place.m_Roots.size();
    if (!m_Roots.empty() && m_Roots.size() != roots) {
        throw CLI::ValidationError("--root", "the manifest is of a cache with " +
                                                 std::to_string(roots) +
                                                 (roots == 1 ? " root" : " roots"));
    }
    if (!m_Roots.empty())
        manifest.m_Place.m_Roots = m_Roots;
    // The store ends the process at a block that it cannot hold.
    if (manifest.largestBlock() > m_Memory) {
        throw CLI::ValidationError("--memory", SizeText::print(m_Memory) + " hold no block of " +
                                                   SizeText::print(manifest.largestBlock()) +
                                                   ", which the manifest has");
    }
    const std::unique_ptr<ToolStore> store =
        ToolStore::open(manifest.m_Place, {ToolStore::Roots::Expect, m_Memory, 0}, reason);
    if (store == nullptr) {
        errors.add(reason);
        return ExitCode::Failed;
    }
    QElapsedTimer timer;
    timer.start();
    FileRestorer restoring(m_Threads, *store, errors, progress);
    restoring.run(manifest, m_Out);

    SummaryText summary;
    const double seconds = SummaryText::secondsOf(timer);
    summary.addCount("files", "Files", restoring.files(),
                     "of " + SizeText::grouped(static_cast<qint64>(manifest.m_Files.size())));
    summary.addBytes("bytes", "Bytes", restoring.bytes());
    summary.addRate({}, "MB/s", restoring.bytes(), seconds, "restored and checked in");
    summary.addCount("errors", "Errors", errors.count());
    return summary.print(m_Json, errors);
}
