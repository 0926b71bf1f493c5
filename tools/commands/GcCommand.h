#pragma once

#include "manager/ZebDataBlockManager.h"
#include "tools/cache/StorePlace.h"
#include "tools/commands/Command.h"

#include <QtGlobal>

#include <string>
#include <vector>

class CacheCleaner;

/// `zebtdx gc`: removes the blocks that none of the given manifests references from their cache.
/// Without --apply, only reports them.
class GcCommand : public Command
{
public:
    CLI::App* addTo(CLI::App& application) override;
    int run(const ToolSettings& settings) override;
    bool isContinuedByAnotherRun() const override { return m_Apply; }

private:
    /// What the manifests have in common, and their sums.
    struct Contents
    {
        StorePlace m_Place;
        qint64 m_Files = 0;
        qint64 m_LargestBlock = 0;
    };

    /// Reads the manifests. Throws a ToolError unless all of them are complete and of one cache.
    Contents read() const;

    /// Why removing so much requires --force; empty when it does not.
    std::string whyForce(const Contents& contents, const CacheCleaner& cleaner) const;

    std::vector<std::string> m_Manifests;
    std::vector<std::string> m_Roots;
    qint64 m_Memory = ZebDataBlockManager::defaultCacheSize();
    bool m_Apply = false;
    bool m_Force = false;
    bool m_Json = false;
};
