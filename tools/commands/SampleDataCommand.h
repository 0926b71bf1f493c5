#pragma once

#include "tools/commands/Command.h"

#include <string>

/// `zebtdx sampledata`: makes the data folder that the self-check needs.
class SampleDataCommand : public Command
{
public:
    CLI::App* addTo(CLI::App& application) override;
    int run(const ToolSettings& settings) override;

private:
    std::string m_Folder;
};
