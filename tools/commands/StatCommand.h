#pragma once

#include "tools/commands/Command.h"

#include <string>
#include <vector>

/// `zebtdx stat`: statistics of a cache on disk. Changes nothing.
class StatCommand : public Command
{
public:
    CLI::App* addTo(CLI::App& application) override;
    int run(const ToolSettings& settings) override;

private:
    std::vector<std::string> m_Roots;
    std::string m_SubCache;
    bool m_Json = false;
};
