#pragma once

#include "selfcheck/ZebSelfCheckTable.h"
#include "tools/commands/Command.h"

#include <QString>
#include <QVector>

#include <string>
#include <vector>

/// `zebtdx selfcheck`: runs the library's own checks, each in a separate process, so that a check
/// that ends its process does not end the others.
class SelfCheckCommand : public Command
{
public:
    CLI::App* addTo(CLI::App& application) override;
    int run(const ToolSettings& settings) override;
    // A row in this process has no steps.
    bool stopsBetweenSteps() const override { return !m_InProcess; }

private:
    using Row = ZebSelfCheckTable::Row;

    /// How a row ended.
    struct Result
    {
        bool m_IsExpected;
        /// The last line that the row logged, or why it did not run.
        std::string m_LastLine;
    };

    /// The rows that the user named, or all.
    QVector<Row> wantedRows() const;

    static Result runHere(const QString& directory, const Row& row);
    static Result runApart(const QString& directory, const Row& row, const ToolSettings& settings);

    std::string m_Data;
    std::vector<std::string> m_Names;
    bool m_All = false;
    bool m_Json = false;
    bool m_InProcess = false;
};
