#pragma once

#include "tools/Command.h"

#include <QtGlobal>

#include <string>
#include <vector>

/// `zebtdx ingest`: puts files into a store, reads all of it back, compares, and tells what came of
/// it.
class IngestCommand : public Command
{
public:
    IngestCommand();

    CLI::App* addTo(CLI::App& application) override;
    int run(const ToolSettings& settings) override;

private:
    /// A CLI::ParseError for sizes that do not go together.
    void requireSizes() const;

    std::vector<std::string> m_Paths;
    qint64 m_Memory;
    qint64 m_BlockSize;
    int m_Threads;
    bool m_Json;
};
