#pragma once

#include "tools/commands/Command.h"

#include <QtGlobal>

#include <string>
#include <vector>

/// `zebtdx restore`: brings the files of a manifest back from the disk cache alone.
class RestoreCommand : public Command
{
public:
    RestoreCommand();

    CLI::App* addTo(CLI::App& application) override;
    int run(const ToolSettings& settings) override;

private:
    std::string m_Manifest;
    std::string m_Out;
    std::vector<std::string> m_Roots;
    qint64 m_Memory;
    int m_Threads;
    bool m_Json;
};
