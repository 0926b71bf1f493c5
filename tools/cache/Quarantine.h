#pragma once

#include "tools/cache/CacheFiles.h"

#include <string>
#include <vector>

/// A folder for files that are moved out of a cache. It lies outside of all roots, since a
/// collector would take for the cache's own what is named like a block. Below it stand "root-1",
/// "root-2" and so on for the roots in their order, with sub-cache and bucket as in the cache, so
/// that a file can be brought back by hand. Nothing there is ever overwritten.
class Quarantine
{
public:
    explicit Quarantine(std::string folder);

    /// Why this folder will not do for a cache with these roots; empty when it will.
    std::string whyNot(const std::vector<std::string>& roots) const;

    /// Moves a file there, and makes the folders that are needed. A file on another disk is copied,
    /// brought to that disk, and then removed. Gives the reason when it is still in the cache.
    ///
    /// @param target where it is now
    [[nodiscard]] std::string move(const CacheFiles& files, const CacheFiles::File& file,
                                   std::string& target) const;

private:
    const std::string m_Folder;
};
