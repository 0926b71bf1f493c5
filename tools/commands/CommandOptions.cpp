#include "tools/commands/CommandOptions.h"

#include "io/ZebBlockFile.h"
#include "tools/terminal/SizeText.h"
#include "tools/terminal/ToolError.h"

#include <CLI/CLI.hpp>

#include <QThread>

#include <algorithm>
#include <optional>

namespace {

constexpr int s_MostThreads = 1024;
constexpr int s_MostCheckThreads = 128;
constexpr int s_MostBuckets = 1000000;

// Throws the reason as the option's error where `check` throws a ToolError.
template <typename Check>
void validate(const std::string& option, Check check)
{
    try {
        check();
    } catch (const ToolError& error) {
        throw CLI::ValidationError(option, error.what());
    }
}

qint64 parsedSize(const std::string& option, const std::string& text)
{
    const std::optional<qint64> parsed = SizeText::parse(text);
    if (!parsed)
        throw CLI::ValidationError(option, "'" + text +
                                               "' is not a size; write a whole number of bytes, or "
                                               "one with K, M, G or T");
    return *parsed;
}

void addRootList(CLI::App& command, std::vector<std::string>& roots, const std::string& defaults)
{
    // Raw, as CLI11 would split some values of a list.
    command
        .add_option(
            "--root",
            [&roots](const CLI::results_t& values) {
                validate("--root", [&values] { StorePlace::requireRoots(values); });
                roots = values;
                return true;
            },
            "Cache root; give each root once, always in the same order (default: " + defaults + ")")
        ->type_name("DIR")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

void addBuckets(CLI::App& command, int& buckets)
{
    CommandOptions::addNumber(command, "--buckets", buckets, 1, s_MostBuckets,
                              "Directories below each root");
}

} // namespace

int CommandOptions::defaultThreads()
{
    return std::clamp(QThread::idealThreadCount(), 1, s_MostThreads);
}

void CommandOptions::addSize(CLI::App& command, const std::string& name, qint64& size,
                             const std::string& description)
{
    const auto read = [name, &size](const std::string& text) {
        size = parsedSize(name, text);
    };
    command
        .add_option_function<std::string>(name, read,
                                          description + " (default: " + SizeText::print(size) + ")")
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
        .add_option_function<std::string>(
            name, read, description + " (default: " + std::to_string(number) + ")")
        ->type_name("N");
}

void CommandOptions::addMemory(CLI::App& command, qint64& memory)
{
    addSize(command, "--memory", memory, "Memory limit for blocks");
}

void CommandOptions::requireMemory(qint64 memory, qint64 largestBlock)
{
    // The store ends the process at a block that it cannot hold.
    if (largestBlock > memory) {
        throw CLI::ValidationError("--memory (" + SizeText::print(memory) +
                                   ") is smaller than the largest block of the manifest (" +
                                   SizeText::print(largestBlock) + "); raise --memory");
    }
}

void CommandOptions::addThreads(CLI::App& command, int& threads, const std::string& description)
{
    addNumber(command, "--threads", threads, 1, s_MostThreads, description);
}

void CommandOptions::addCheckThreads(CLI::App& command, int& threads)
{
    threads = std::min(threads, s_MostCheckThreads);
    addNumber(command, "--threads", threads, 1, s_MostCheckThreads, "Number of threads that check");
}

void CommandOptions::addLargestBlock(CLI::App& command, qint64& bytes)
{
    const auto read = [&bytes](const std::string& text) {
        const qint64 size = parsedSize("--largest", text);
        if (size < 1)
            throw CLI::ValidationError("--largest", "must be at least 1 byte");
        bytes = std::min(size, ZebBlockFile::s_MaxBlockBytes);
    };
    command
        .add_option_function<std::string>(
            "--largest", read,
            "Largest block to decompress, which limits memory (default: 2 GiB less one byte, the "
            "largest block of any store)")
        ->type_name("SIZE");
}

void CommandOptions::addRoots(CLI::App& command, std::vector<std::string>& roots)
{
    roots = {StorePlace::defaultRoot()};
    addRootList(command, roots, StorePlace::defaultRoot() + " in the working directory");
}

void CommandOptions::addManifestRoots(CLI::App& command, std::vector<std::string>& roots)
{
    addRootList(command, roots, "the roots in the manifest");
}

void CommandOptions::addSubCache(CLI::App& command, std::string& subCache,
                                 const std::string& description)
{
    const auto read = [&subCache](const std::string& text) {
        validate("--sub-cache", [&text] { StorePlace::requireSubCache(text); });
        subCache = text;
    };
    command.add_option_function<std::string>("--sub-cache", read, description)->type_name("NAME");
}

void CommandOptions::addPlace(CLI::App& command, StorePlace& place)
{
    addRoots(command, place.m_Roots);
    addBuckets(command, place.m_Buckets);
    addSubCache(command, place.m_SubCache, "Sub-cache to use (default: " + place.m_SubCache + ")");
}

void CommandOptions::addCheckPlace(CLI::App& command, StorePlace& place)
{
    addRoots(command, place.m_Roots);
    addBuckets(command, place.m_Buckets);
    place.m_SubCache.clear();
    addSubCache(command, place.m_SubCache, "Check only this sub-cache (default: all)");
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

void CommandOptions::addJson(CLI::App& command, bool& json)
{
    command.add_flag("--json", json, "Print the result as one JSON object");
}
