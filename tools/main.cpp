// The command-line tool: reads the command line and hands over to a command.

#include "support/ZebTdxVersion.h"
#include "tools/commands/CatCommand.h"
#include "tools/commands/Command.h"
#include "tools/commands/GcCommand.h"
#include "tools/commands/IngestCommand.h"
#include "tools/commands/LsCommand.h"
#include "tools/commands/ProbeCommand.h"
#include "tools/commands/RepairCommand.h"
#include "tools/commands/RestoreCommand.h"
#include "tools/commands/SampleDataCommand.h"
#include "tools/commands/SelfCheckCommand.h"
#include "tools/commands/StatCommand.h"
#include "tools/commands/VerifyCommand.h"
#include "tools/terminal/ExitCode.h"
#include "tools/terminal/MessageFilter.h"
#include "tools/terminal/PathText.h"

#include <CLI/CLI.hpp>

#include <QCoreApplication>

#include <algorithm>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

const char* const s_Footer =
    "Sizes are whole numbers of bytes, or with K, M, G or T (also KiB, MiB, GiB, TiB) behind\n"
    "them, which are powers of 1024.\n"
    "Names of files are taken as the bytes that they are. In messages, control characters and\n"
    "bytes that are no UTF-8 show as \\xNN.\n"
    "\n"
    "Exit status:\n"
    "  0  everything was done, and nothing differed\n"
    "  1  a file failed, or a difference was found; the rest was done\n"
    "  2  the command line makes no sense; nothing was done\n"
    "verify, repair and probe tell in their own help what 1 and 2 mean for them.\n";

struct Entry
{
    std::unique_ptr<Command> m_Command;
    CLI::App* m_Parsed;
};

// Three things that CLI11 would get wrong are settled before it sees them, by a "./" in front,
// which leaves the same name: "[a,b]" is no list, "++" ends nothing, and what follows "--" is no
// option.
std::vector<std::string> plainArguments(int argc, char** argv)
{
    std::vector<std::string> arguments;
    bool namesOnly = false;
    for (int i = 1; i < argc; ++i) {
        std::string argument = argv[i];
        if (!namesOnly && argument == "--") {
            namesOnly = true;
            continue;
        }
        const bool looksLikeList =
            !argument.empty() && argument.front() == '[' && argument.back() == ']';
        const bool looksLikeOption = !argument.empty() && argument.front() == '-';
        if (looksLikeList || argument == "++" || (namesOnly && looksLikeOption))
            argument.insert(0, "./");
        arguments.push_back(std::move(argument));
    }
    return arguments;
}

int runTool(int argc, char** argv)
{
    CLI::App application(
        "Puts files into a ZebTdx store, where equal blocks are kept once, and brings them back.",
        "zebtdx");
    ToolSettings settings;
    application.set_version_flag("--version", "zebtdx " ZEBTDX_VERSION_STRING);
    application.add_flag("--verbose", settings.m_Verbose, "Show the store's own messages");
    application.require_subcommand(1);

    std::vector<std::unique_ptr<Command>> commands;
    commands.push_back(std::make_unique<IngestCommand>());
    commands.push_back(std::make_unique<RestoreCommand>());
    commands.push_back(std::make_unique<StatCommand>());
    commands.push_back(std::make_unique<LsCommand>());
    commands.push_back(std::make_unique<CatCommand>());
    commands.push_back(std::make_unique<GcCommand>());
    commands.push_back(std::make_unique<SampleDataCommand>());
    commands.push_back(std::make_unique<SelfCheckCommand>());
    commands.push_back(std::make_unique<VerifyCommand>());
    commands.push_back(std::make_unique<RepairCommand>());
    commands.push_back(std::make_unique<ProbeCommand>());

    std::vector<Entry> entries;
    for (std::unique_ptr<Command>& command : commands) {
        CLI::App* const parsed = command->addTo(application);
        parsed->add_flag("--verbose", settings.m_Verbose, "Show the store's own messages");
        entries.push_back({std::move(command), parsed});
    }
    // A command with other words on its exit status has its own.
    for (CLI::App* const app : application.get_subcommands({})) {
        if (app->get_footer().empty())
            app->footer(s_Footer);
    }
    application.footer(s_Footer);

    std::vector<std::string> arguments = plainArguments(argc, argv);
    // CLI11 takes its list from the back.
    std::reverse(arguments.begin(), arguments.end());
    try {
        application.parse(std::move(arguments));
        // Not earlier, so that the store's first messages find the setting.
        MessageFilter::install(settings.m_Verbose);
        for (const Entry& entry : entries) {
            if (entry.m_Parsed->parsed())
                return entry.m_Command->run(settings);
        }
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success))
            return application.exit(error);
        std::cerr << "zebtdx: " << PathText::printable(error.what()) << " (--help tells more)\n";
        return ExitCode::BadUsage;
    }
    return ExitCode::BadUsage;
}

} // namespace

int main(int argc, char** argv)
{
    // The tool's arguments are not Qt's.
    int qtArgumentCount = 1;
    const QCoreApplication application(qtArgumentCount, argv);
    try {
        return runTool(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "zebtdx: " << error.what() << '\n';
        return ExitCode::Failed;
    }
}
