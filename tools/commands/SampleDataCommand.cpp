#include "tools/commands/SampleDataCommand.h"

#include "tools/commands/SampleData.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/ToolError.h"

#include <CLI/CLI.hpp>

#include <QFile>

#include <iostream>

CLI::App* SampleDataCommand::addTo(CLI::App& application)
{
    CLI::App* const command =
        application.add_subcommand("sampledata", "Create the data that the self-check needs");
    command->add_option("DIR", m_Directory, "Directory for the data; created if missing")
        ->type_name("")
        ->required();
    return command;
}

int SampleDataCommand::run(const ToolSettings&)
{
    const QString failed = SampleData::write(QFile::decodeName(m_Directory.c_str()));
    if (!failed.isEmpty()) {
        const std::string path = PathText::printable(QFile::encodeName(failed).toStdString());
        throw ToolError(path + (failed.endsWith(QLatin1String(".tif"))
                                    ? ": cannot be written; install Qt's plugin for TIFF images"
                                    : ": cannot be written; check the directory"));
    }
    std::cout << "The data for zebtdx selfcheck is in " << PathText::printable(m_Directory)
              << ".\n";
    return ExitCode::Success;
}
