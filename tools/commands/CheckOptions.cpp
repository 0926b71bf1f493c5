#include "tools/commands/CheckOptions.h"

#include "tools/cache/BlockVerifier.h"
#include "tools/commands/CommandOptions.h"
#include "tools/files/FileKind.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/SizeText.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string>

#include <sys/stat.h>

namespace {

constexpr int s_MostThreads = 128;

} // namespace

void CheckOptions::addPlace(CLI::App& command, StorePlace& place)
{
    place.m_SubCache.clear();
    CommandOptions::addRoots(command, place.m_Roots,
                             "Cache root, once for each, in their order (default " +
                                 StorePlace::defaultRoot() + ", below the working folder)");
    CommandOptions::addBuckets(command, place.m_Buckets);
    CommandOptions::addSubCache(command, place.m_SubCache, "Only this part of the cache");
}

void CheckOptions::addThreads(CLI::App& command, int& threads)
{
    threads = std::min(threads, s_MostThreads);
    CommandOptions::addNumber(command, "--threads", threads, 1, s_MostThreads,
                              "How many threads check");
}

void CheckOptions::addLargestBlock(CLI::App& command, qint64& bytes)
{
    command
        .add_option_function<std::string>(
            "--largest",
            [&bytes](const std::string& text) {
                const std::optional<qint64> parsed = SizeText::parse(text);
                if (!parsed || *parsed < 1)
                    throw CLI::ValidationError("--largest", "'" + text + "' is not a size");
                bytes = std::min(*parsed, BlockVerifier::s_MostBlockBytes);
            },
            "Largest block that is decompressed, which bounds the memory (default: 2 GiB less a "
            "byte, which is all that a store takes)")
        ->type_name("SIZE");
}

bool CheckOptions::areFolders(const StorePlace& place, ErrorReport& errors)
{
    bool all = true;
    for (const std::string& root : place.m_Roots) {
        struct stat status = {};
        int error = ::stat(root.c_str(), &status) == 0 ? 0 : errno;
        if (error == 0 && !S_ISDIR(status.st_mode))
            error = ENOTDIR;
        if (error != 0) {
            errors.add(root, FileKind::errorText(error));
            all = false;
        }
    }
    return all;
}
