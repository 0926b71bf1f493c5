// The command-line tool: parses the command line and runs a command.

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
#include "tools/terminal/StopRequest.h"

#include <CLI/CLI.hpp>

#include <QCoreApplication>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace {

const char* const s_Footer =
    "Sizes are whole numbers of bytes, or powers of 1024 with K, M, G or T (also KiB, MiB, GiB or\n"
    "TiB) after the number.\n"
    "File names are taken as bytes. Messages show control characters and bytes that are not UTF-8\n"
    "as \\xNN.\n"
    "\n"
    "Exit status:\n"
    "  0  everything was done, without errors or differences\n"
    "  1  a file failed or differs; the rest was done\n"
    "  2  the command line is invalid; nothing was done\n"
    "The help of verify, repair and probe explains their exit statuses.\n";

const char* const s_StopFooter =
    "\n"
    "SIGINT and SIGTERM end this command after the work in hand, and the process by that signal\n"
    "(130 and 143 in a shell). A second one ends it at once.\n";

const char* const s_KillFooter = "\n"
                                 "SIGINT and SIGTERM end this command at once.\n";

struct Entry
{
    std::unique_ptr<Command> m_Command;
    CLI::App* m_Parsed;
};

// Protects three kinds of names from CLI11 with a "./" in front, which names the same file:
// "[a,b]" is not a list, "++" ends nothing, and names after "--" are not options.
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

// The store's writers retry indefinitely, and its clean-up waits for them, so a disk that accepts
// nothing leaves no way to return from a command.
[[noreturn]] void giveUp()
{
    std::_Exit(ExitCode::Failed);
}

std::vector<std::unique_ptr<Command>> allCommands()
{
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
    return commands;
}

int runTool(int argc, char** argv)
{
    CLI::App application(
        "Puts files into a ZebTdx store, which keeps equal blocks once, and restores them.",
        "zebtdx");
    ToolSettings settings;
    settings.m_GiveUp = &giveUp;
    application.set_version_flag("--version", "zebtdx " ZEBTDX_VERSION_STRING);
    application.add_flag("--verbose", settings.m_Verbose, "Show the store's own messages");
    application.require_subcommand(1);

    std::vector<Entry> entries;
    for (std::unique_ptr<Command>& command : allCommands()) {
        CLI::App* const parsed = command->addTo(application);
        parsed->add_flag("--verbose", settings.m_Verbose, "Show the store's own messages");
        entries.push_back({std::move(command), parsed});
    }
    // Commands with other exit statuses have their own footer.
    for (const Entry& entry : entries) {
        const std::string own = entry.m_Parsed->get_footer();
        entry.m_Parsed->footer(
            (own.empty() ? s_Footer : own) +
            (entry.m_Command->stopsBetweenSteps() ? s_StopFooter : s_KillFooter));
    }
    application.footer(s_Footer);

    std::vector<std::string> arguments = plainArguments(argc, argv);
    // CLI11 takes the list in reverse.
    std::reverse(arguments.begin(), arguments.end());
    int failure = ExitCode::Failed;
    try {
        application.parse(std::move(arguments));
        // The setting must be known before the store logs anything.
        MessageFilter::install(settings.m_Verbose);
        for (const Entry& entry : entries) {
            if (!entry.m_Parsed->parsed())
                continue;
            failure = entry.m_Command->statusOfException();
            if (entry.m_Command->stopsBetweenSteps())
                StopRequest::install(entry.m_Command->isContinuedByAnotherRun());
            return entry.m_Command->run(settings);
        }
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success))
            return application.exit(error);
        std::cerr << "zebtdx: " << PathText::printable(error.what()) << " (see --help)\n";
    } catch (const StopRequest::Stopped& stop) {
        std::cout.flush();
        const std::string line = StopRequest::takeLine();
        if (!line.empty())
            std::cerr << "zebtdx: " << line << '\n';
        StopRequest::endBy(stop.signal());
    } catch (const std::bad_alloc&) {
        std::cerr << "zebtdx: out of memory\n";
        return failure;
    } catch (const std::exception& error) {
        std::cerr << "zebtdx: " << error.what() << '\n';
        return failure;
    }
    return ExitCode::BadUsage;
}

} // namespace

int main(int argc, char** argv)
try {
    // The tool's arguments are not Qt's.
    int qtArgumentCount = 1;
    const QCoreApplication application(qtArgumentCount, argv);
    return runTool(argc, argv);
} catch (const std::exception& error) {
    // Not even the options could be built.
    std::cerr << "zebtdx: " << error.what() << '\n';
    return ExitCode::Failed;
}
