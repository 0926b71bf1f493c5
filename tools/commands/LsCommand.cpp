#include "tools/commands/LsCommand.h"

#include "tools/cache/CacheScanner.h"
#include "tools/commands/CommandOptions.h"
#include "tools/files/Manifest.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/ProgressBar.h"
#include "tools/terminal/ToolError.h"

#include <CLI/CLI.hpp>

#include <iomanip>
#include <iostream>
#include <optional>

namespace {

// Fits nearly all sizes.
constexpr int s_SizeWidth = 12;

void printLine(qint64 size, const std::string& name)
{
    std::cout << std::setw(s_SizeWidth) << size << "  " << name << '\n';
}

} // namespace

CLI::App* LsCommand::addTo(CLI::App& application)
{
    CLI::App* const command = application.add_subcommand(
        "ls", "List the files of a manifest with their sizes and hashes, or the blocks of a cache");
    CLI::Option* const manifest =
        command->add_option("MANIFEST", m_Manifest, "List its files; without it, list blocks")
            ->type_name("");
    CommandOptions::addRoots(*command, m_Roots);
    CommandOptions::addSubCache(*command, m_SubCache, "List only this sub-cache (default: all)");
    for (const char* const name : {"--root", "--sub-cache"})
        command->get_option(name)->excludes(manifest);
    return command;
}

int LsCommand::run(const ToolSettings&)
{
    ProgressBar progress = ProgressBar::onStandardError(false);
    ErrorReport errors(progress);
    if (m_Manifest.empty())
        listCache(errors);
    else
        ToolError::locate(m_Manifest, [this] { listManifest(); });
    errors.flushOutput();
    return errors.status();
}

void LsCommand::listManifest() const
{
    for (const Manifest::File& file : Manifest::load(m_Manifest).m_Files)
        printLine(file.m_Size,
                  file.m_Group.toStdString() + "  " + PathText::printable(file.m_Path));
}

void LsCommand::listCache(ErrorReport& errors) const
{
    CacheScanner scanner(errors);
    if (!m_SubCache.empty())
        scanner.only(m_SubCache);
    scanner.run(m_Roots, [&errors](const CacheScanner::File& file) {
        if (!file.m_IsBlock)
            return;
        const std::optional<qint64> bytes = CacheScanner::blockBytesOf(file, errors);
        if (bytes)
            printLine(*bytes, file.m_Name);
    });
}
