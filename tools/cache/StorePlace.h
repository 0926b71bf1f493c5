#pragma once

#include <string>
#include <vector>

/// Where a store keeps its files. All of it decides where a block lies, so a store is found again
/// only with the same number and order of roots, the same buckets and the same sub-cache.
struct StorePlace
{
    /// Folders, as the bytes that the user gave.
    std::vector<std::string> m_Roots;
    int m_Buckets = 10;
    /// Empty for the unnamed one, which the collector of the store leaves alone.
    std::string m_SubCache = defaultSubCache();

    /// Where a command looks when no root is given: below the working folder.
    static std::string defaultRoot() { return "zebtdx-cache"; }

    static std::string defaultSubCache() { return "main"; }

    /// Why `name` can't be the name of a sub-cache, which is one folder below each root; empty when
    /// it can. A name of digits only would be a bucket of the unnamed sub-cache.
    static std::string whyNoSubCache(const std::string& name);

    /// Why these can't be the roots of one store; empty when they can.
    static std::string whyNoRoots(const std::vector<std::string>& roots);
};
