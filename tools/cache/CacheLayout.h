#pragma once

#include <string>
#include <vector>

class CacheFiles;

/// Finds out which roots and buckets a cache was made with, from the names and places of its files
/// alone.
namespace CacheLayout {

/// A text for each sub-cache of which more files are in place with other roots, or another number
/// of buckets, than those that the files were listed with: "82 of the 82 files in sub-cache main
/// fit --buckets 10, but only 40 fit what was given".
///
/// Looks at an evenly spaced sample of each sub-cache. A few files alone prove nothing.
std::vector<std::string> contradictions(const CacheFiles& files);

/// Throws these texts as a ToolError, if there are any.
void require(const CacheFiles& files);

} // namespace CacheLayout
