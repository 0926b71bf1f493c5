#pragma once

#include "tools/cache/ToolStore.h"
#include "tools/terminal/ExitCode.h"

namespace CLI {
class App;
}

/// What main() gives to every command.
struct ToolSettings
{
    /// Whether to show the store's own messages.
    bool m_Verbose = false;

    /// How a command ends when the disk cache accepts no blocks any more.
    ToolStore::GiveUp m_GiveUp;
};

/// One command of the tool. It lives from before the command line is parsed until the program ends.
class Command
{
public:
    Command() = default;
    virtual ~Command() = default;
    Command(const Command&) = delete;
    Command& operator=(const Command&) = delete;

    /// Adds the command with its options to the application, which owns the returned object. The
    /// options reject invalid values with a CLI::ParseError while the line is parsed.
    virtual CLI::App* addTo(CLI::App& application) = 0;

    /// Does the work, once the parsed line has named this command. Returns the exit status. Throws
    /// a CLI::ParseError for options that exclude each other, before anything is done, and any
    /// other exception for an error that ends the command.
    virtual int run(const ToolSettings& settings) = 0;

    /// The exit status for an exception.
    virtual int statusOfException() const { return ExitCode::Failed; }

    /// Whether run() calls StopRequest::check(). A signal ends any other command at once.
    virtual bool stopsBetweenSteps() const { return true; }

    /// Whether another run of the parsed line finishes what a signal has stopped.
    virtual bool isContinuedByAnotherRun() const { return false; }
};
