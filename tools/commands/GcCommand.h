#pragma once

#include "tools/commands/Command.h"

#include <QtGlobal>

#include <string>
#include <vector>

class ErrorReport;
class ProgressBar;
struct Manifest;

/// `zebtdx gc`: keeps what manifests name, and removes the rest of their cache. Removes nothing
/// unless asked to.
class GcCommand : public Command
{
public:
    GcCommand();

    CLI::App* addTo(CLI::App& application) override;
    int run(const ToolSettings& settings) override;

private:
    /// Reads the manifests. False when one can't be read, or is not of the same cache as the
    /// others.
    bool load(std::vector<Manifest>& manifests, ErrorReport& errors) const;

    int clean(const std::vector<Manifest>& manifests, ErrorReport& errors, ProgressBar& progress);

    std::vector<std::string> m_Manifests;
    std::vector<std::string> m_Roots;
    qint64 m_Memory;
    bool m_Apply;
    bool m_Json;
};
