#pragma once

#include "tools/commands/Command.h"

#include <QtGlobal>

#include <string>
#include <vector>

/// `zebtdx probe`: checks whether a store can be set up on cache roots.
class ProbeCommand : public Command
{
public:
    CLI::App* addTo(CLI::App& application) override;
    int run(const ToolSettings& settings) override;
    bool stopsBetweenSteps() const override { return false; }

private:
    std::vector<std::string> m_Roots;
    qint64 m_Space = 1024LL * 1024 * 1024;
    bool m_Json = false;
};
