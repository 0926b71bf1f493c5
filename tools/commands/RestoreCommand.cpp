#include "tools/commands/RestoreCommand.h"

#include "tools/cache/ToolStore.h"
#include "tools/files/FileRestorer.h"
#include "tools/files/Manifest.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/ProgressBar.h"
#include "tools/terminal/SizeText.h"
#include "tools/terminal/SummaryText.h"
#include "tools/terminal/ToolError.h"

#include <CLI/CLI.hpp>

#include <QElapsedTimer>

CLI::App* RestoreCommand::addTo(CLI::App& application)
{
    CLI::App* const command =
        application.add_subcommand("restore", "Restore the files of a manifest from the cache");
    command->add_option("MANIFEST", m_Manifest, "Manifest that ingest wrote")
        ->type_name("")
        ->required();
    command
        ->add_option("--out", m_Out,
                     "Directory for the files; existing files are compared and not touched")
        ->type_name("DIR")
        ->required();
    CommandOptions::addManifestRoots(*command, m_Roots);
    CommandOptions::addMemory(*command, m_Memory);
    CommandOptions::addThreads(*command, m_Threads, "Number of threads that restore");
    CommandOptions::addJson(*command, m_Json);
    return command;
}

int RestoreCommand::run(const ToolSettings& settings)
{
    // The store's messages and a bar would overwrite each other.
    ProgressBar progress = ProgressBar::onStandardError(!settings.m_Verbose);
    ErrorReport errors(progress);
    Manifest manifest;
    ToolError::locate(m_Manifest, [&] { manifest = Manifest::load(m_Manifest); });
    const std::size_t roots = manifest.m_Place.m_Roots.size();
    if (!m_Roots.empty() && m_Roots.size() != roots) {
        throw CLI::ValidationError("the manifest's cache has " + std::to_string(roots) +
                                   (roots == 1 ? " root" : " roots") + ", but --root names " +
                                   std::to_string(m_Roots.size()) +
                                   "; give each root once, in their order");
    }
    if (!m_Roots.empty())
        manifest.m_Place.m_Roots = m_Roots;
    CommandOptions::requireMemory(m_Memory, manifest.largestBlock());
    const auto store =
        ToolStore::open(manifest.m_Place, {ToolStore::Roots::Read, m_Memory}, settings.m_GiveUp);
    QElapsedTimer timer;
    timer.start();
    FileRestorer restorer(m_Threads, *store, errors, progress);
    restorer.run(manifest, m_Out);

    SummaryText summary;
    const double seconds = SummaryText::secondsOf(timer);
    summary.addCount("files", "Files", restorer.files(),
                     "of " + SizeText::grouped(static_cast<qint64>(manifest.m_Files.size())));
    if (restorer.present() > 0)
        summary.addCount("present", "Already there", restorer.present());
    else
        summary.addJson("present", 0);
    summary.addBytes("bytes", "Bytes", restorer.bytes());
    summary.addRate({}, "MB/s restored", restorer.bytes(), seconds);
    summary.addCount("errors", "Errors", errors.count());
    return summary.print(m_Json, errors);
}
