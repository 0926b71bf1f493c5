#pragma once

#include "tools/cache/StorePlace.h"

#include <QtGlobal>

#include <string>
#include <vector>

namespace CLI {
class App;
}

/// Options that several commands share. What they read is written to the variable given, which
/// holds the default until then. A value that makes no sense is a CLI::ValidationError while the
/// command line is read.
namespace CommandOptions {

/// How many threads a command has when none are asked for: the cores.
int defaultThreads();

/// A size in bytes.
void addSize(CLI::App& command, const std::string& name, qint64& size,
             const std::string& description);

/// A whole number from `least` to `most`.
void addNumber(CLI::App& command, const std::string& name, int& number, int least, int most,
               const std::string& description);

/// --memory
void addMemory(CLI::App& command, qint64& memory);

/// --threads
void addThreads(CLI::App& command, int& threads, const std::string& description);

/// --root, which may be given several times. `roots` stays empty when it is not given.
void addRoots(CLI::App& command, std::vector<std::string>& roots, const std::string& description);

/// --sub-cache
void addSubCache(CLI::App& command, std::string& subCache, const std::string& description);

/// --buckets
void addBuckets(CLI::App& command, int& buckets);

/// --root, --buckets and --sub-cache, for a store that is to be used. settlePlace() must follow
/// once the line has been read.
void addPlace(CLI::App& command, StorePlace& place);

/// Takes the default root when none was given.
void settlePlace(StorePlace& place);

/// A positional list of paths, taken as they are.
void addPaths(CLI::App& command, const std::string& name, std::vector<std::string>& paths,
              const std::string& description);

} // namespace CommandOptions
