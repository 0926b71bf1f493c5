#pragma once

#include "tools/cache/StorePlace.h"
#include "tools/commands/Command.h"

#include <QtGlobal>

class ErrorReport;
class ProgressBar;

/// `zebtdx verify`: finds the block files of a cache that would be read wrongly or not at all, and
/// what else is not as it should be. Writes nothing.
class VerifyCommand : public Command
{
public:
    VerifyCommand();

    CLI::App* addTo(CLI::App& application) override;
    int run(const ToolSettings& settings) override;

private:
    int verify(ErrorReport& errors, ProgressBar& progress);

    StorePlace m_Place;
    qint64 m_LargestBlock;
    int m_Threads;
    int m_Percent;
    bool m_Fast;
    bool m_Json;
};
