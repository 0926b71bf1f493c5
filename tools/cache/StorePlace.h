#pragma once

#include <string>
#include <vector>

/// Where a store keeps its files. Each field decides where a block lies, so an existing cache is
/// found only with the same number and order of roots, the same buckets and the same sub-cache.
struct StorePlace
{
    /// Directories, as the bytes that the user gave.
    std::vector<std::string> m_Roots;
    int m_Buckets = 10;
    /// Empty for the unnamed sub-cache, which the store's collector does not touch.
    std::string m_SubCache = defaultSubCache();

    /// The root when none is given, below the working directory.
    static std::string defaultRoot() { return "zebtdx-cache"; }

    static std::string defaultSubCache() { return "main"; }

    /// Throws a ToolError unless every root is a directory.
    void requireDirectories() const;

    /// Waits until everything that was written to the cache is on the disk, also where sub-caches
    /// or buckets lie on other file systems than their root. With an empty m_SubCache, that is
    /// every sub-cache. Throws a ToolError.
    void syncAll() const;

    /// Throws a ToolError unless `name` can be the name of a sub-cache, which is one directory
    /// below each root. A name of digits only would be a bucket of the unnamed sub-cache.
    static void requireSubCache(const std::string& name);

    /// Throws a ToolError unless these can be the roots of one store.
    static void requireRoots(const std::vector<std::string>& roots);
};
