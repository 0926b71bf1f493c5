#pragma once

#include "io/ZebBlockFile.h"
#include "tools/cache/StorePlace.h"
#include "tools/commands/Command.h"
#include "tools/commands/CommandOptions.h"

#include <QtGlobal>

#include <string>

enum class ZebBlockFinding;
class CacheFiles;
class CacheVerifier;
class ErrorReport;

/// `zebtdx repair`: moves the damaged files of a cache to a directory outside of it. The store then
/// treats them as missing, and writes them again when their bytes are added again. Without --apply,
/// only reports them.
class RepairCommand : public Command
{
public:
    CLI::App* addTo(CLI::App& application) override;
    int run(const ToolSettings& settings) override;
    bool isContinuedByAnotherRun() const override { return m_Apply; }
    int statusOfException() const override { return ExitCode::Environment; }

private:
    /// Removes the marks of ingests that have not finished, once all files are on the disk.
    void removeMarks(const CacheFiles& files, ErrorReport& errors) const;

    /// Whether the places of most files match the roots and buckets given.
    static bool isThisCache(const CacheFiles& files, qint64 elsewhere);

    /// Whether a file with this damage is moved. It may be sound otherwise.
    bool isToMove(ZebBlockFinding finding) const;

    /// Moves the damaged files. Returns how many it moved.
    qint64 move(const CacheFiles& files, const CacheVerifier& found, ErrorReport& errors) const;

    StorePlace m_Place;
    std::string m_Quarantine = "zebtdx-quarantine";
    qint64 m_LargestBlock = ZebBlockFile::s_MaxBlockBytes;
    int m_Threads = CommandOptions::defaultThreads();
    bool m_Apply = false;
    bool m_MoveMisplaced = false;
    bool m_Json = false;
};
