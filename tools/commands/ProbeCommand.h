#pragma once

#include "tools/commands/Command.h"

#include <QtGlobal>

#include <string>
#include <vector>

/// `zebtdx probe`: whether a store can be set up on cache roots, before somebody does.
class ProbeCommand : public Command
{
public:
    ProbeCommand();

    CLI::App* addTo(CLI::App& application) override;
    int run(const ToolSettings& settings) override;

private:
    std::vector<std::string> m_Roots;
    qint64 m_Space;
    bool m_Json;
};
