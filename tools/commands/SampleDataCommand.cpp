#include "tools/commands/SampleDataCommand.h"

#include "tools/commands/SampleData.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/ExitCode.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/ProgressBar.h"

#include <CLI/CLI.hpp>

#include <QFile>

#include <iostream>

CLI::App* SampleDataCommand::addTo(CLI::App& application)
{
    CLI::App* const command =
        application.add_subcommand("sampledata", "Make the data that the self-check needs");
    command->add_option("folder", m_Folder, "Where to; made when missing")
        ->type_name("")
        ->required();
    return command;
}

int SampleDataCommand::run(const ToolSettings&)
{
    ProgressBar progress = ProgressBar::onStandardError(false);
    ErrorReport errors(progress);
    const QString failed = SampleData::write(QFile::decodeName(m_Folder.c_str()));
    if (failed.isEmpty()) {
        std::cout << "Made the data for zebtdx selfcheck in " << PathText::printable(m_Folder)
                  << ".\n";
        return ExitCode::Success;
    }
    const std::string path = QFile::encodeName(failed).toStdString();
    const bool isTexture = failed.endsWith(QLatin1String(".tif"));
    errors.add(path, isTexture ? "cannot be written; is Qt's plugin for TIFF images installed?"
                               : "cannot be written");
    return ExitCode::Failed;
}
