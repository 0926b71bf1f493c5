#pragma once

#include "manager/ZebDataBlockManager.h"
#include "tools/commands/Command.h"
#include "tools/commands/CommandOptions.h"

#include <QtGlobal>

#include <string>
#include <vector>

/// `zebtdx restore`: restores the files of a manifest from the disk cache.
class RestoreCommand : public Command
{
public:
    CLI::App* addTo(CLI::App& application) override;
    int run(const ToolSettings& settings) override;
    bool isContinuedByAnotherRun() const override { return true; }

private:
    std::string m_Manifest;
    std::string m_Out;
    std::vector<std::string> m_Roots;
    qint64 m_Memory = ZebDataBlockManager::defaultCacheSize();
    int m_Threads = CommandOptions::defaultThreads();
    bool m_Json = false;
};
