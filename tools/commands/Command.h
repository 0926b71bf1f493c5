#pragma once

namespace CLI {
class App;
}

/// What the user said before the command, or for every command alike.
struct ToolSettings
{
    /// Whether the store's own messages are shown.
    bool m_Verbose = false;
};

/// One command of the tool. It lives from before the command line is read until the program ends.
class Command
{
public:
    Command() = default;
    virtual ~Command() = default;
    Command(const Command&) = delete;
    Command& operator=(const Command&) = delete;

    /// Adds the command with its options to the application, which owns what is returned. The
    /// options say what is wrong with their values while the line is read, by a CLI::ParseError.
    virtual CLI::App* addTo(CLI::App& application) = 0;

    /// Does the work, once the line has been read and named this command. Gives the exit status.
    /// Options that do not go together are a CLI::ParseError, before anything is done.
    virtual int run(const ToolSettings& settings) = 0;
};
