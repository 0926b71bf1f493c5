#pragma once

#include "io/ZebBlockFile.h"
#include "tools/cache/StorePlace.h"
#include "tools/commands/Command.h"
#include "tools/commands/CommandOptions.h"

#include <QtGlobal>

/// `zebtdx verify`: finds the damaged block files of a cache, and whatever else needs attention.
/// Writes nothing.
class VerifyCommand : public Command
{
public:
    CLI::App* addTo(CLI::App& application) override;
    int run(const ToolSettings& settings) override;
    int statusOfException() const override { return ExitCode::Environment; }

private:
    StorePlace m_Place;
    qint64 m_LargestBlock = ZebBlockFile::s_MaxBlockBytes;
    int m_Threads = CommandOptions::defaultThreads();
    int m_Percent = 100;
    bool m_Fast = false;
    bool m_Json = false;
};
