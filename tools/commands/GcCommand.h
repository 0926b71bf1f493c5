#pragma once

#include "manager/ZebDataBlockManager.h"
#include "tools/commands/Command.h"

#include <QtGlobal>

#include <string>
#include <vector>

struct Manifest;

/// `zebtdx gc`: removes the blocks that none of the given manifests references from their cache.
/// Without --apply, only reports them.
class GcCommand : public Command
{
public:
    CLI::App* addTo(CLI::App& application) override;
    int run(const ToolSettings& settings) override;

private:
    /// Reads the manifests. Throws a ToolError unless all of them are of one cache.
    std::vector<Manifest> load() const;

    std::vector<std::string> m_Manifests;
    std::vector<std::string> m_Roots;
    qint64 m_Memory = ZebDataBlockManager::defaultCacheSize();
    bool m_Apply = false;
    bool m_Json = false;
};
