#include "tools/commands/IngestCommand.h"

#include "data/ZebDataBlock.h"
#include "manager/ZebDataBlockManager.h"
#include "tools/cache/ToolStore.h"
#include "tools/commands/CommandOptions.h"
#include "tools/commands/IngestSummary.h"
#include "tools/files/FileComparer.h"
#include "tools/files/FileIngester.h"
#include "tools/files/FileWalker.h"
#include "tools/files/Manifest.h"
#include "tools/files/ManifestBuilder.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/ExitCode.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/ProgressBar.h"
#include "tools/terminal/SizeText.h"
#include "tools/terminal/SummaryText.h"

#include <CLI/CLI.hpp>

#include <QElapsedTimer>

#include <filesystem>

#include <unistd.h>

namespace {

constexpr qint64 s_DefaultBlockSize = 256 * 1024;
constexpr int s_MostCompressionThreads = 256;

} // namespace

IngestCommand::IngestCommand()
    : m_Manifest("zebtdx-manifest.jsonl"),
      m_Memory(ZebDataBlockManager::defaultCacheSize()),
      m_BlockSize(s_DefaultBlockSize),
      m_Threads(CommandOptions::defaultThreads()),
      m_CompressionThreads(CommandOptions::defaultThreads()),
      m_Replace(false),
      m_NoCheck(false),
      m_Json(false)
{}

CLI::App* IngestCommand::addTo(CLI::App& application)
{
    CLI::App* const command = application.add_subcommand(
        "ingest", "Put files into a cache on disk, read everything back, and compare");
    CommandOptions::addPaths(*command, "PATH", m_Paths,
                             "Files and folders; symbolic links inside folders are not followed");
    CommandOptions::addPlace(*command, m_Place);
    command
        ->add_option("--manifest", m_Manifest,
                     "File for what restore needs (default " + m_Manifest + ")")
        ->type_name("FILE");
    command->add_flag("--replace", m_Replace, "Replace a manifest that is there already");
    CommandOptions::addMemory(*command, m_Memory);
    CommandOptions::addSize(*command, "--block", m_BlockSize, "Size of a block");
    CommandOptions::addThreads(*command, m_Threads, "How many threads read, store and compare");
    CommandOptions::addNumber(*command, "--compression-threads", m_CompressionThreads, 0,
                              s_MostCompressionThreads,
                              "How many threads compress for each root; with 0, its writer does");
    command->add_flag("--no-check", m_NoCheck, "Do not read back and compare");
    command->add_flag("--json", m_Json, "Print the summary as one JSON object");
    return command;
}

void IngestCommand::requireSizes() const
{
    if (m_BlockSize < 1)
        throw CLI::ValidationError("--block", "a block has at least 1 byte");
    if (m_Memory < m_BlockSize) {
        throw CLI::ValidationError("--memory", SizeText::print(m_Memory) + " hold no block of " +
                                                   SizeText::print(m_BlockSize));
    }
    // The largest block depends on the memory limit, too, so that is set already.
    ZebDataBlockManager::instance().setMaxDataCacheSize(m_Memory);
    const qint64 largest = ZebDataBlock::maxBlockSize();
    if (m_BlockSize > largest) {
        throw CLI::ValidationError("--block", SizeText::print(m_BlockSize) +
                                                  " is more than the store takes, which is " +
                                                  SizeText::grouped(largest) + " bytes");
    }
}

int IngestCommand::run(const ToolSettings& settings)
{
    requireSizes();
    CommandOptions::settlePlace(m_Place);
    // The store's messages and a bar would run into each other.
    ProgressBar progress = ProgressBar::onStandardError(!settings.m_Verbose);
    ErrorReport errors(progress);
    // Now, and not when hours of work are to be written down.
    if (!m_Replace && ::access(m_Manifest.c_str(), F_OK) == 0) {
        errors.add(m_Manifest, "is there already; --manifest takes another name, and --replace "
                               "replaces it");
        return ExitCode::Failed;
    }
    std::string reason;
    const std::unique_ptr<ToolStore> store = ToolStore::open(
        m_Place, {ToolStore::Roots::Make, m_Memory, m_CompressionThreads, RootLock::Use::Alone},
        reason);
    if (store == nullptr) {
        errors.add(reason);
        return ExitCode::Failed;
    }
    FileWalker walk(errors);
    for (const std::string& root : m_Place.m_Roots)
        walk.leaveOut(root);
    for (const std::string& path : m_Paths)
        walk.add(path);
    return ingest(walk, *store, errors, progress);
}

int IngestCommand::ingest(const FileWalker& walk, ToolStore& store, ErrorReport& errors,
                          ProgressBar& progress)
{
    IngestSummary summary;
    summary.m_Memory = m_Memory;
    summary.m_Threads = m_Threads;
    summary.m_SkippedLinks = walk.skippedLinks();
    summary.m_Checked = !m_NoCheck;
    QElapsedTimer timer;
    timer.start();
    FileIngester storing({m_BlockSize, m_Threads, m_Memory}, store, errors, progress);
    StoredFiles stored = storing.run(walk);
    store.flush(errors);
    summary.m_SecondsIn = SummaryText::secondsOf(timer);
    summary.count(stored);
    // Before the comparison, which a reader may want to do without.
    if (writeManifest(stored, errors))
        summary.m_Manifest = m_Manifest;

    if (!m_NoCheck) {
        FileComparer checking(m_Threads, store, errors, progress);
        timer.restart();
        checking.run(stored);
        summary.m_SecondsOut = SummaryText::secondsOf(timer);
        summary.m_ReadBackBytes = checking.bytes();
        summary.m_Differences = checking.differences();
    }
    summary.m_Errors = errors.count();
    return summary.shown().print(m_Json, errors);
}

bool IngestCommand::writeManifest(const StoredFiles& stored, ErrorReport& errors) const
{
    ManifestBuilder builder(m_Place, errors);
    const Manifest manifest = builder.build(stored);
    const std::string reason = manifest.save(m_Manifest, m_Replace);
    if (!reason.empty())
        errors.add(m_Manifest, reason);
    return reason.empty();
}
