#pragma once

#include "tools/commands/Command.h"
#include "tools/commands/SelfCheckRows.h"

#include <QString>

#include <string>
#include <vector>

/// `zebtdx selfcheck`: runs the library's own checks, each in a process of its own, so that a row
/// that ends its process ends no other.
class SelfCheckCommand : public Command
{
public:
    SelfCheckCommand();

    CLI::App* addTo(CLI::App& application) override;
    int run(const ToolSettings& settings) override;

private:
    /// How a row came out here or in its process.
    struct Result
    {
        bool m_IsRight;
        std::string m_Words;
    };

    /// The rows that the user named, or all.
    std::vector<SelfCheckRows::Row> wantedRows() const;

    Result runHere(const QString& folder, const SelfCheckRows::Row& row) const;
    Result runApart(const QString& folder, const SelfCheckRows::Row& row,
                    const ToolSettings& settings) const;

    std::string m_Data;
    std::vector<std::string> m_Names;
    bool m_All;
    bool m_Json;
    bool m_InProcess;
};
