#pragma once

#include "tools/cache/StorePlace.h"
#include "tools/commands/Command.h"

#include <QtGlobal>

#include <string>
#include <vector>

class ErrorReport;

/// `zebtdx cat`: the bytes of a block, or of the file that a group block lists, to standard output.
class CatCommand : public Command
{
public:
    CatCommand();

    CLI::App* addTo(CLI::App& application) override;
    int run(const ToolSettings& settings) override;

private:
    StorePlace m_Place;
    std::vector<std::string> m_Hashes;
    qint64 m_Memory;
    bool m_Members;
};
