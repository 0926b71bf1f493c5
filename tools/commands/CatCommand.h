#pragma once

#include "manager/ZebDataBlockManager.h"
#include "tools/cache/StorePlace.h"
#include "tools/commands/Command.h"

#include <QtGlobal>

#include <string>
#include <vector>

/// `zebtdx cat`: writes the bytes of a block, or of the file that a group block lists, to standard
/// output.
class CatCommand : public Command
{
public:
    CLI::App* addTo(CLI::App& application) override;
    int run(const ToolSettings& settings) override;

private:
    StorePlace m_Place;
    std::vector<std::string> m_Hashes;
    qint64 m_Memory = ZebDataBlockManager::defaultCacheSize();
    bool m_Members = false;
};
