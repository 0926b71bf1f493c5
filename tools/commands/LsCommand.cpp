#include "tools/commands/LsCommand.h"

#include "tools/cache/BlockHeader.h"
#include "tools/cache/CacheScanner.h"
#include "tools/cache/StorePlace.h"
#include "tools/commands/CommandOptions.h"
#include "tools/files/FileReader.h"
#include "tools/files/Manifest.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/ExitCode.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/ProgressBar.h"

#include <CLI/CLI.hpp>

#include <iomanip>
#include <iostream>

namespace {

// Fits the sizes of nearly all that is listed.
constexpr int s_SizeWidth = 12;

void printLine(qint64 size, const std::string& name)
{
    std::cout << std::setw(s_SizeWidth) << size << "  " << name << '\n';
}

} // namespace

CLI::App* LsCommand::addTo(CLI::App& application)
{
    CLI::App* const command = application.add_subcommand(
        "ls",
        "List the files of a manifest, with their sizes and hashes, or the blocks of a cache");
    CLI::Option* const manifest =
        command->add_option("MANIFEST", m_Manifest, "List its files; without it, list blocks")
            ->type_name("");
    CommandOptions::addRoots(*command, m_Roots,
                             "Cache root, once for each (default " + StorePlace::defaultRoot() +
                                 ", below the working folder)");
    CommandOptions::addSubCache(*command, m_SubCache, "Only this part of the cache");
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
        listManifest(errors);
    std::cout.flush();
    if (!std::cout)
        errors.add("standard output: cannot be written");
    return errors.count() == 0 ? ExitCode::Success : ExitCode::Failed;
}

void LsCommand::listManifest(ErrorReport& errors) const
{
    Manifest manifest;
    const std::string reason = manifest.load(m_Manifest);
    if (!reason.empty()) {
        errors.add(m_Manifest, reason);
        return;
    }
    for (const Manifest::File& file : manifest.m_Files)
        printLine(file.m_Size,
                  file.m_Group.toStdString() + "  " + PathText::printable(file.m_Path));
}

void LsCommand::listCache(ErrorReport& errors) const
{
    CacheScanner scan(errors);
    if (!m_SubCache.empty())
        scan.only(m_SubCache);
    const std::vector<std::string> roots =
        m_Roots.empty() ? std::vector<std::string>{StorePlace::defaultRoot()} : m_Roots;
    FileReader reader;
    scan.run(roots, [&errors, &reader](const CacheScanner::File& file) {
        if (!file.m_IsBlock)
            return;
        BlockHeader header;
        std::string reason = reader.open(file.m_Path);
        if (reason.empty())
            reason = header.read(reader);
        if (reason.empty())
            printLine(header.m_BlockSize, file.m_Name);
        else
            errors.add(file.m_Path, reason);
    });
}
