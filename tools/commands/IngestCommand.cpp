#include "tools/commands/IngestCommand.h"

#include "data/ZebDataBlock.h"
#include "tools/cache/ToolStore.h"
#include "tools/cache/UnfinishedMark.h"
#include "tools/commands/IngestSummary.h"
#include "tools/files/FileComparer.h"
#include "tools/files/FileIngester.h"
#include "tools/files/FileWalker.h"
#include "tools/files/Manifest.h"
#include "tools/files/StoredBlockChecker.h"
#include "tools/files/StoredFiles.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/ProgressBar.h"
#include "tools/terminal/SizeText.h"
#include "tools/terminal/SummaryText.h"
#include "tools/terminal/ToolError.h"

#include <CLI/CLI.hpp>

#include <QElapsedTimer>
#include <QScopeGuard>

#include <optional>

#include <unistd.h>

namespace {

constexpr int s_MostCompressionThreads = 256;

} // namespace

CLI::App* IngestCommand::addTo(CLI::App& application)
{
    CLI::App* const command = application.add_subcommand(
        "ingest", "Put files into a cache on disk, read every block back, and compare");
    CommandOptions::addPaths(*command, "PATH", m_Paths,
                             "Files and directories; symbolic links in directories are skipped");
    CommandOptions::addPlace(*command, m_Place);
    command
        ->add_option("--manifest", m_Manifest,
                     "Manifest to write, for restore (default: " + m_Manifest + ")")
        ->type_name("FILE");
    command->add_flag("--replace", m_Replace,
                      "Replace an existing manifest, which is kept under the same name with a "
                      "number");
    command->add_flag("--force", m_Force,
                      "Replace it even if files failed, or by one that lists no files");
    CommandOptions::addMemory(*command, m_Memory);
    CommandOptions::addSize(*command, "--block", m_BlockSize, "Block size");
    CommandOptions::addThreads(*command, m_Threads,
                               "Number of threads that read, store and compare");
    CommandOptions::addNumber(
        *command, "--compression-threads", m_CompressionThreads, 0, s_MostCompressionThreads,
        "Number of threads that compress for each root; with 0, its writer compresses");
    command->add_flag("--no-check", m_NoCheck, "Do not read back and compare");
    command->add_flag("--verify", m_Verify,
                      "Decompress and digest every block file, also those that existed before; "
                      "always done after an ingest that has not finished");
    CommandOptions::addJson(*command, m_Json);
    return command;
}

void IngestCommand::requireSizes() const
{
    const std::string block = "(" + SizeText::print(m_BlockSize) + ")";
    if (m_BlockSize < 1)
        throw CLI::ValidationError("--block", "a block has at least 1 byte; raise --block");
    if (m_Memory < m_BlockSize) {
        throw CLI::ValidationError("--memory (" + SizeText::print(m_Memory) +
                                   ") is smaller than one block " + block +
                                   "; raise --memory or lower --block");
    }
    // The largest block also depends on the memory limit, so that is set already.
    ZebDataBlockManager::instance().setMaxDataCacheSize(m_Memory);
    const qint64 largest = ZebDataBlock::maxBlockSize();
    if (m_BlockSize > largest) {
        throw CLI::ValidationError("--block " + block +
                                   " is larger than the largest block of the store (" +
                                   SizeText::grouped(largest) + " bytes); lower --block");
    }
}

int IngestCommand::run(const ToolSettings& settings)
{
    requireSizes();
    // The store's messages and a bar would overwrite each other.
    ProgressBar progress = ProgressBar::onStandardError(!settings.m_Verbose);
    ErrorReport errors(progress);
    // Now, not after hours of work.
    if (!m_Replace && ::access(m_Manifest.c_str(), F_OK) == 0)
        throw ToolError(PathText::printable(m_Manifest) +
                        ": already exists; choose another file with --manifest, or pass --replace");
    const auto store = ToolStore::open(
        m_Place, {ToolStore::Roots::Make, m_Memory, m_CompressionThreads, RootLock::Use::Alone},
        settings.m_GiveUp);
    // A stop and an error leave queued blocks.
    const auto finished = qScopeGuard([&] { store->finish(errors); });
    FileWalker walk(errors);
    for (const std::string& root : m_Place.m_Roots)
        walk.leaveOut(root);
    for (const std::string& path : m_Paths)
        walk.add(path);
    // Now, not after hours of work.
    const std::string whyNot = whyNotReplace(walk.files().empty(), errors);
    if (!whyNot.empty())
        throw ToolError(PathText::printable(m_Manifest) + ": " + whyNot);
    const UnfinishedMark mark(m_Place, m_Manifest, m_Paths, m_BlockSize);
    m_Verify = findMarks(mark, errors) || m_Verify;
    mark.set();
    return ingest(walk, *store, errors, progress, mark);
}

bool IngestCommand::findMarks(const UnfinishedMark& own, ErrorReport& errors) const
{
    const std::vector<std::string> marks = UnfinishedMark::find(m_Place);
    bool isAgain = false;
    for (const std::string& path : marks) {
        if (own.isAt(path))
            isAgain = true;
        else
            errors.note(path, UnfinishedMark::textOf(path));
    }
    if (isAgain)
        errors.note("this ingest has not finished before; its block files are checked in full");
    return !marks.empty();
}

int IngestCommand::ingest(const FileWalker& walk, ToolStore& store, ErrorReport& errors,
                          ProgressBar& progress, const UnfinishedMark& mark)
{
    IngestSummary summary;
    summary.m_Memory = m_Memory;
    summary.m_Threads = m_Threads;
    summary.m_SkippedLinks = walk.skippedLinks();
    summary.m_Checked = !m_NoCheck;
    QElapsedTimer timer;
    timer.start();
    FileIngester ingester({m_BlockSize, m_Threads, m_Memory}, store, errors, progress);
    StoredFiles stored = ingester.run(walk);
    store.flush(errors);
    summary.m_SecondsIn = SummaryText::secondsOf(timer);
    // A file that cannot be read says nothing about the cache; all later errors do.
    const qint64 failedFiles = errors.count();
    StoredBlockChecker checker({m_Threads, m_Verify}, store, errors, progress);
    checker.run(stored);
    summary.m_Rewritten = checker.rewritten();
    summary.count(stored);
    if (!m_NoCheck) {
        FileComparer comparer(m_Threads, store, errors, progress);
        timer.restart();
        comparer.run(stored);
        summary.m_SecondsOut = SummaryText::secondsOf(timer);
        summary.m_ReadBackBytes = comparer.bytes();
        summary.m_Differences = comparer.differences();
    }
    // A file that differs or failed is in the manifest or not; the cache is sound only without any
    // error since.
    const bool isSound = errors.count() == failedFiles;
    if (sync(errors) && save(stored, summary, errors) && isSound)
        mark.clear();
    summary.m_Errors = errors.count();
    return summary.shown().print(m_Json, errors);
}

std::string IngestCommand::whyNotReplace(bool isEmpty, const ErrorReport& errors) const
{
    if (m_Force || ::access(m_Manifest.c_str(), F_OK) != 0)
        return {};
    const std::string end = "; it stays as it is; fix the cause, or pass --force to replace it";
    if (isEmpty)
        return "is not replaced, as the new one would list no files" + end;
    if (errors.count() > 0)
        return "is not replaced, as the new one would lack files, or not all are as stored" + end;
    return {};
}

bool IngestCommand::sync(ErrorReport& errors) const
{
    // After a power loss, a manifest must not name blocks that are not there.
    const std::optional<ToolError> error = ToolError::of([this] { m_Place.syncAll(); });
    if (error)
        errors.add(std::string(error->what()) + "; no manifest is written; check the disk");
    return !error;
}

bool IngestCommand::save(const StoredFiles& stored, IngestSummary& summary,
                         ErrorReport& errors) const
{
    const Manifest manifest = Manifest::of(stored, m_Place, errors);
    const std::string whyNot = whyNotReplace(manifest.m_Files.empty(), errors);
    if (!whyNot.empty()) {
        errors.add(m_Manifest, whyNot);
        return true;
    }
    const std::optional<ToolError> error =
        ToolError::of([&] { summary.m_PreviousManifest = manifest.save(m_Manifest, m_Replace); });
    if (error)
        errors.add(m_Manifest, *error);
    else
        summary.m_Manifest = m_Manifest;
    return !error;
}
