#include "tools/commands/CommandOptions.h"

#include "tools/terminal/SizeText.h"

#include <CLI/CLI.hpp>

#include <QThread>

#include <algorithm>
#include <optional>

namespace {

constexpr int s_MostThreads = 1024;
constexpr int s_MostBuckets = 1000000;

} // namespace

int CommandOptions::defaultThreads()
{
    return std::clamp(QThread::idealThreadCount(), 1, s_MostThreads);
}

void CommandOptions::addSize(CLI::App& command, const std::string& name, qint64& size,
                             const std::string& description)
{
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

void CommandOptions::addNumber(CLI::App& command, const std::string& name, int& number, int least,
                               int most, const std::string& description)
{
    const auto read = [name, &number, least, most](const std::string& text) {
        const std::optional<qint64> parsed = SizeText::parse(text);
        if (!parsed || *parsed < least || *parsed > most) {
            throw CLI::ValidationError(name, "'" + text + "' is not a number from " +
                                                 std::to_string(least) + " to " +
                                                 std::to_string(most));
        }
        number = static_cast<int>(*parsed);
    };
    command
        .add_option_function<std::string>(name, read,
                                          description + " (default " + std::to_string(number) + ")")
        ->type_name("N");
}

void CommandOptions::addMemory(CLI::App& command, qint64& memory)
{
    addSize(command, "--memory", memory, "Most memory that the blocks may take");
}

void CommandOptions::addThreads(CLI::App& command, int& threads, const std::string& description)
{
    addNumber(command, "--threads", threads, 1, s_MostThreads, description);
}

void CommandOptions::addRoots(CLI::App& command, std::vector<std::string>& roots,
                              const std::string& description)
{
    // Raw, as CLI11 finds more than a name in some values of a list.
    command
        .add_option(
            "--root",
            [&roots](const CLI::results_t& values) {
                const std::string reason = StorePlace::whyNoRoots(values);
                if (!reason.empty())
                    throw CLI::ValidationError("--root", reason);
                roots = values;
                return true;
            },
            description)
        ->type_name("DIR")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

void CommandOptions::addSubCache(CLI::App& command, std::string& subCache,
                                 const std::string& description)
{
    const auto read = [&subCache](const std::string& text) {
        const std::string reason = StorePlace::whyNoSubCache(text);
        if (!reason.empty())
            throw CLI::ValidationError("--sub-cache", reason);
        subCache = text;
    };
    command.add_option_function<std::string>("--sub-cache", read, description)->type_name("NAME");
}

void CommandOptions::addBuckets(CLI::App& command, int& buckets)
{
    addNumber(command, "--buckets", buckets, 1, s_MostBuckets, "Folders below each root");
}

void CommandOptions::addPlace(CLI::App& command, StorePlace& place)
{
    addRoots(command, place.m_Roots,
             "Cache root, once for each disk (default " + StorePlace::defaultRoot() +
                 ", below the working folder)");
    addBuckets(command, place.m_Buckets);
    addSubCache(command, place.m_SubCache,
                "Name of the part of the cache (default " + place.m_SubCache + ")");
}

void CommandOptions::settlePlace(StorePlace& place)
{
    if (place.m_Roots.empty())
        place.m_Roots = {StorePlace::defaultRoot()};
}

void CommandOptions::addPaths(CLI::App& command, const std::string& name,
                              std::vector<std::string>& paths, const std::string& description)
{
    command
        .add_option(
            name,
            [&paths](const CLI::results_t& values) {
                paths = values;
                return true;
            },
            description)
        ->type_name("")
        ->expected(1, CLI::detail::expected_max_vector_size)
        ->allow_extra_args()
        ->required();
}
