#pragma once

#include "tools/cache/StorePlace.h"

#include <QtGlobal>

#include <string>
#include <vector>

namespace CLI {
class App;
}

/// Options that several commands share. They write to the variable given, which holds the default
/// until then. An invalid value is a CLI::ValidationError while the command line is parsed.
namespace CommandOptions {

/// How many threads a command uses by default: one for each core.
int defaultThreads();

/// A size in bytes.
void addSize(CLI::App& command, const std::string& name, qint64& size,
             const std::string& description);

/// A whole number from `least` to `most`.
void addNumber(CLI::App& command, const std::string& name, int& number, int least, int most,
               const std::string& description);

/// --memory
void addMemory(CLI::App& command, qint64& memory);

/// Throws a CLI::ValidationError unless --memory is at least the largest block of a manifest.
void requireMemory(qint64 memory, qint64 largestBlock);

/// --threads
void addThreads(CLI::App& command, int& threads, const std::string& description);

/// --threads of a check, few enough to share the memory that a check may use.
void addCheckThreads(CLI::App& command, int& threads);

/// --largest
void addLargestBlock(CLI::App& command, qint64& bytes);

/// --root, which may be given several times. `roots` is the default root until then.
void addRoots(CLI::App& command, std::vector<std::string>& roots);

/// --root, where the roots of a manifest are the default: `roots` stays empty.
void addManifestRoots(CLI::App& command, std::vector<std::string>& roots);

/// --sub-cache
void addSubCache(CLI::App& command, std::string& subCache, const std::string& description);

/// --root, --buckets and --sub-cache, for a store to set up.
void addPlace(CLI::App& command, StorePlace& place);

/// The same for a check. Without --sub-cache the name is empty, which stands for all sub-caches.
void addCheckPlace(CLI::App& command, StorePlace& place);

/// A positional list of paths, taken as they are.
void addPaths(CLI::App& command, const std::string& name, std::vector<std::string>& paths,
              const std::string& description);

/// --json
void addJson(CLI::App& command, bool& json);

} // namespace CommandOptions
