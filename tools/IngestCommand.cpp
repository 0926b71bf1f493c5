#include "tools/IngestCommand.h"

#include "data/ZebDataBlock.h"
#include "manager/ZebDataBlockManager.h"
#include "tools/BlockChecking.h"
#include "tools/BlockStoring.h"
#include "tools/ErrorReport.h"
#include "tools/ExitCode.h"
#include "tools/FileWalk.h"
#include "tools/IngestSummary.h"
#include "tools/ProgressBar.h"
#include "tools/SizeText.h"
#include "tools/ToolStore.h"

#include <CLI/CLI.hpp>

#include <QElapsedTimer>
#include <QThread>

#include <algorithm>
#include <iostream>
#include <memory>
#include <optional>

namespace {

constexpr qint64 s_DefaultBlockSize = 256 * 1024;
constexpr int s_MostThreads = 1024;
constexpr double s_NanosecondsPerSecond = 1e9;

double secondsOf(const QElapsedTimer& timer)
{
    return static_cast<double>(timer.nsecsElapsed()) / s_NanosecondsPerSecond;
}

void addSizeOption(CLI::App& command, const std::string& name, qint64& size,
                   const std::string& description)
{
    // The size that is there already is the default.
    const auto read = [name, &size](const std::string& text) {
        const std::optional<qint64> parsed = SizeText::parse(text);
        if (!parsed) {
            throw CLI::ValidationError(
                name, "'" + text +
                          "' is not a size; write a whole number, with K, M, G or T if "
                          "you like");
        }
        size = *parsed;
    };
    command
        .add_option_function<std::string>(name, read,
                                          description + " (default " + SizeText::print(size) + ")")
        ->type_name("SIZE");
}

void addThreadsOption(CLI::App& command, int& threads)
{
    const auto read = [&threads](const std::string& text) {
        const std::optional<qint64> parsed = SizeText::parse(text);
        if (!parsed || *parsed < 1 || *parsed > s_MostThreads) {
            throw CLI::ValidationError("--threads", "'" + text + "' is not a number from 1 to " +
                                                        std::to_string(s_MostThreads));
        }
        threads = static_cast<int>(*parsed);
    };
    command
        .add_option_function<std::string>("--threads", read,
                                          "How many threads read, store and compare (default " +
                                              std::to_string(threads) + ", the cores)")
        ->type_name("N");
}

} // namespace

IngestCommand::IngestCommand()
    : m_Memory(ZebDataBlockManager::defaultCacheSize()),
      m_BlockSize(s_DefaultBlockSize),
      m_Threads(std::clamp(QThread::idealThreadCount(), 1, s_MostThreads)),
      m_Json(false)
{}

CLI::App* IngestCommand::addTo(CLI::App& application)
{
    CLI::App* const command = application.add_subcommand(
        "ingest", "Put files into a store, read everything back, and compare");
    // Raw, as CLI11 finds more than a name in some values of a list.
    command
        ->add_option(
            "PATH",
            [this](const CLI::results_t& values) {
                m_Paths = values;
                return true;
            },
            "Files and folders; symbolic links inside folders are not followed")
        ->type_name("")
        ->expected(1, CLI::detail::expected_max_vector_size)
        ->allow_extra_args()
        ->required();
    addSizeOption(*command, "--memory", m_Memory, "Most memory that the blocks may take");
    addSizeOption(*command, "--block", m_BlockSize, "Size of a block");
    addThreadsOption(*command, m_Threads);
    command->add_flag("--json", m_Json, "Print the summary as one JSON object");
    return command;
}

void IngestCommand::requireSizes() const
{
    if (m_BlockSize < 1)
        throw CLI::ValidationError("--block", "a block has at least 1 byte");
    if (m_Memory < m_BlockSize) {
        throw CLI::ValidationError("--memory", SizeText::print(m_Memory) + " hold no block of " +
                                                   SizeText::print(m_BlockSize));
    }
    // The largest block depends on the memory limit, too, so that is set already.
    ZebDataBlockManager::instance().setMaxDataCacheSize(m_Memory);
    const qint64 largest = ZebDataBlock::maxBlockSize();
    if (m_BlockSize > largest) {
        throw CLI::ValidationError("--block", SizeText::print(m_BlockSize) +
                                                  " is more than the store takes, which is " +
                                                  SizeText::grouped(largest) + " bytes");
    }
}

int IngestCommand::run(const ToolSettings& settings)
{
    requireSizes();
    // The store's messages and a bar would run into each other.
    ProgressBar progress = ProgressBar::onStandardError(!settings.m_Verbose);
    ErrorReport errors(progress);
    std::string reason;
    const std::unique_ptr<ToolStore> store = ToolStore::open(m_Memory, reason);
    if (store == nullptr) {
        errors.add(reason);
        return ExitCode::Failed;
    }
    FileWalk walk(errors);
    for (const std::string& path : m_Paths)
        walk.add(path);

    IngestSummary summary;
    summary.m_Memory = m_Memory;
    summary.m_Threads = m_Threads;
    summary.m_SkippedLinks = walk.skippedLinks();
    QElapsedTimer timer;
    timer.start();
    BlockStoring storing({m_BlockSize, m_Threads}, errors, progress);
    StoredFiles stored = storing.run(walk);
    summary.m_SecondsIn = secondsOf(timer);
    summary.count(stored);

    BlockChecking checking(m_Threads, errors, progress);
    timer.restart();
    checking.run(stored);
    summary.m_SecondsOut = secondsOf(timer);
    summary.m_ReadBackBytes = checking.bytes();
    summary.m_Differences = checking.differences();
    summary.m_Errors = errors.count();

    std::cout << (m_Json ? summary.json().toStdString() : summary.text()) << std::flush;
    if (!std::cout) {
        errors.add("standard output: cannot be written");
        return ExitCode::Failed;
    }
    return errors.count() == 0 ? ExitCode::Success : ExitCode::Failed;
}
