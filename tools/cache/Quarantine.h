#pragma once

#include "tools/cache/CacheFiles.h"

#include <string>
#include <vector>

/// A directory for files that are moved out of a cache. It lies outside of all roots, since a
/// collector would remove files there that are named like blocks. Below it, "root-1", "root-2" and
/// so on stand for the roots in their order, with sub-cache and bucket as in the cache, so that a
/// file can be moved back by hand. Nothing there is ever overwritten.
class Quarantine
{
public:
    explicit Quarantine(std::string directory);

    /// Throws a ToolError when this directory is not suitable for a cache with these roots.
    void require(const std::vector<std::string>& roots) const;

    /// Moves a file there, and creates the directories for it. A file on another disk is copied,
    /// fsynced, and then removed. Returns the new path. Throws a ToolError when the file is still
    /// in the cache.
    std::string move(const CacheFiles& files, const CacheFiles::File& file) const;

private:
    const std::string m_Directory;
};
