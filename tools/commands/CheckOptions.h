#pragma once

#include "tools/cache/StorePlace.h"

#include <QtGlobal>

namespace CLI {
class App;
}
class ErrorReport;

/// Options of the commands that check a cache, beside those of CommandOptions.
namespace CheckOptions {

/// --root, --buckets, and --sub-cache, where none means all of them. Sets the place's sub-cache to
/// the empty name for that.
void addPlace(CLI::App& command, StorePlace& place);

/// --threads, so few that they fit into the memory that a check may take.
void addThreads(CLI::App& command, int& threads);

/// --largest
void addLargestBlock(CLI::App& command, qint64& bytes);

/// Whether every root is a folder. What is none is an error.
bool areFolders(const StorePlace& place, ErrorReport& errors);

} // namespace CheckOptions
