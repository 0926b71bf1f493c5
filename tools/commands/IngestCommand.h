#pragma once

#include "tools/cache/StorePlace.h"
#include "tools/commands/Command.h"

#include <QtGlobal>

#include <memory>
#include <string>
#include <vector>

class ErrorReport;
class FileWalker;
class ProgressBar;
class ToolStore;
struct StoredFiles;

/// `zebtdx ingest`: puts files into a store on disk, reads all of it back, compares, writes a
/// manifest for `zebtdx restore`, and tells what came of it.
class IngestCommand : public Command
{
public:
    IngestCommand();

    CLI::App* addTo(CLI::App& application) override;
    int run(const ToolSettings& settings) override;

private:
    /// A CLI::ParseError for sizes that do not go together.
    void requireSizes() const;

    /// Stores, compares and tells. Gives the exit status.
    int ingest(const FileWalker& walk, ToolStore& store, ErrorReport& errors,
               ProgressBar& progress);

    /// Writes the manifest of what is stored. False when that failed.
    bool writeManifest(const StoredFiles& stored, ErrorReport& errors) const;

    std::vector<std::string> m_Paths;
    StorePlace m_Place;
    std::string m_Manifest;
    qint64 m_Memory;
    qint64 m_BlockSize;
    int m_Threads;
    int m_CompressionThreads;
    bool m_Replace;
    bool m_NoCheck;
    bool m_Json;
};
