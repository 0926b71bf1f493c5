#pragma once

#include "tools/commands/Command.h"

#include <string>
#include <vector>

class ErrorReport;

/// `zebtdx ls`: lists the files of a manifest, or the blocks of a cache on disk.
class LsCommand : public Command
{
public:
    CLI::App* addTo(CLI::App& application) override;
    int run(const ToolSettings& settings) override;

private:
    void listManifest() const;
    void listCache(ErrorReport& errors) const;

    std::string m_Manifest;
    std::vector<std::string> m_Roots;
    std::string m_SubCache;
};
