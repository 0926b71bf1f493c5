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

/// `zebtdx ingest`: puts files into a cache on disk, writes a manifest for `zebtdx restore`, then
/// reads the blocks from the store and compares them with the files.
class IngestCommand : public Command
{
public:
    CLI::App* addTo(CLI::App& application) override;
    int run(const ToolSettings& settings) override;

private:
    /// Throws a CLI::ParseError for sizes that exclude each other.
    void requireSizes() const;

    /// Stores, compares and reports. Returns the exit status.
    int ingest(const FileWalker& walk, ToolStore& store, ErrorReport& errors,
               ProgressBar& progress);

    std::vector<std::string> m_Paths;
    StorePlace m_Place;
    std::string m_Manifest = "zebtdx-manifest.jsonl";
    qint64 m_Memory = ZebDataBlockManager::defaultCacheSize();
    qint64 m_BlockSize = 256LL * 1024;
    int m_Threads = CommandOptions::defaultThreads();
    int m_CompressionThreads = CommandOptions::defaultThreads();
    bool m_Replace = false;
    bool m_NoCheck = false;
    bool m_Json = false;
};
