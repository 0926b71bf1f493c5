#pragma once

#include "tools/commands/Command.h"

#include <string>

/// `zebtdx sampledata`: creates the data directory that the self-check needs.
class SampleDataCommand : public Command
{
public:
    CLI::App* addTo(CLI::App& application) override;
    int run(const ToolSettings& settings) override;
    bool stopsBetweenSteps() const override { return false; }

private:
    std::string m_Directory;
};
