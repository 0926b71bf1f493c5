#pragma once

#include "manager/ZebDataBlockManager.h"
#include "tools/cache/StorePlace.h"
#include "tools/commands/Command.h"
#include "tools/commands/CommandOptions.h"

#include <QtGlobal>

#include <memory>
#include <string>
#include <vector>

class ErrorReport;
class FileWalker;
class ProgressBar;
class ToolStore;
struct IngestSummary;
class UnfinishedMark;
struct StoredFiles;

/// `zebtdx ingest`: puts files into a cache on disk, reads the blocks back from the disk, compares
/// them with the files, and writes a manifest for `zebtdx restore`. An UnfinishedMark is in the
/// cache meanwhile.
class IngestCommand : public Command
{
public:
    CLI::App* addTo(CLI::App& application) override;
    int run(const ToolSettings& settings) override;
    bool isContinuedByAnotherRun() const override { return true; }

private:
    /// Throws a CLI::ParseError for sizes that exclude each other.
    void requireSizes() const;

    /// Reports the marks of ingests that have not finished. Returns whether there are any.
    bool findMarks(const UnfinishedMark& own, ErrorReport& errors) const;

    /// Stores, compares and reports. Returns the exit status.
    int ingest(const FileWalker& walk, ToolStore& store, ErrorReport& errors, ProgressBar& progress,
               const UnfinishedMark& mark);

    /// Why the existing manifest must not be replaced; empty when there is none, or with --force.
    ///
    /// @param isEmpty whether the new manifest lists no files
    std::string whyNotReplace(bool isEmpty, const ErrorReport& errors) const;

    /// Waits until all blocks are on the disk. Returns whether they are.
    bool sync(ErrorReport& errors) const;

    /// Writes the manifest. Returns false where that fails.
    bool save(const StoredFiles& stored, IngestSummary& summary, ErrorReport& errors) const;

    std::vector<std::string> m_Paths;
    StorePlace m_Place;
    std::string m_Manifest = "zebtdx-manifest.jsonl";
    qint64 m_Memory = ZebDataBlockManager::defaultCacheSize();
    qint64 m_BlockSize = 256LL * 1024;
    int m_Threads = CommandOptions::defaultThreads();
    int m_CompressionThreads = CommandOptions::defaultThreads();
    bool m_Replace = false;
    bool m_Force = false;
    bool m_NoCheck = false;
    bool m_Verify = false;
    bool m_Json = false;
};
