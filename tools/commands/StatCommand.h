#pragma once

#include "tools/commands/Command.h"

#include <string>
#include <vector>

/// `zebtdx stat`: what lies in a cache on disk, without changing it.
class StatCommand : public Command
{
public:
    StatCommand();

    CLI::App* addTo(CLI::App& application) override;
    int run(const ToolSettings& settings) override;

private:
    std::vector<std::string> m_Roots;
    std::string m_SubCache;
    bool m_Json;
};
