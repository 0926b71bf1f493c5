#pragma once

#include "tools/cache/StorePlace.h"
#include "tools/commands/Command.h"

#include <QtGlobal>

#include <string>

class CacheFiles;
class CacheVerifier;
class ErrorReport;
class ProgressBar;

/// `zebtdx repair`: moves the damaged files of a cache to a folder outside of it. The store then
/// takes them for missing, and writes them anew when their bytes are added again. Moves nothing
/// unless asked to.
class RepairCommand : public Command
{
public:
    RepairCommand();

    CLI::App* addTo(CLI::App& application) override;
    int run(const ToolSettings& settings) override;

private:
    int repair(ErrorReport& errors, ProgressBar& progress);

    /// Whether the files lie so that they may be those of the roots and buckets given.
    static bool isThisCache(const CacheFiles& files, const CacheVerifier& found);

    /// Moves what is damaged. Gives how many files were moved.
    qint64 move(const CacheFiles& files, const CacheVerifier& found, ErrorReport& errors) const;

    StorePlace m_Place;
    std::string m_Quarantine;
    qint64 m_LargestBlock;
    int m_Threads;
    bool m_Apply;
    bool m_Json;
};
