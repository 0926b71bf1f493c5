#pragma once

#include "hash/ZebBlockName.h"
#include "io/ZebBlockPlace.h"
#include "tools/cache/CacheScanner.h"
#include "tools/cache/StorePlace.h"

#include <QtGlobal>

#include <string>
#include <utility>
#include <vector>

class CacheWarnings;
class ErrorReport;

/// A list of the block files of a cache, with 72 bytes for each. Anything else in the cache is a
/// warning. Reads directories only, and follows no link below a root.
class CacheFiles
{
public:
    struct File
    {
        ZebBlockName m_Name;
        /// Index into the directories.
        std::size_t m_Directory = 0;
    };

    struct Directory
    {
        std::string m_Path;
        std::size_t m_Root = 0;
        std::string m_SubCache;
        int m_Bucket = 0;
    };

    /// @param place the roots, and the sub-cache unless `all` asks for every sub-cache
    CacheFiles(StorePlace place, bool all, ErrorReport& errors, CacheWarnings& warnings);

    /// What the files were listed with.
    const StorePlace& place() const { return m_Place; }

    const std::vector<File>& files() const { return m_Files; }

    /// The paths of the marks of ingests that have not finished.
    const std::vector<std::string>& marks() const { return m_Marks; }

    const Directory& directoryOf(const File& file) const { return m_Directories[file.m_Directory]; }
    std::string pathOf(const File& file) const;

    /// Where the file should lie.
    ZebBlockPlace placeOf(const File& file) const;

    const std::string& rootPath(int index) const
    {
        return m_Place.m_Roots[static_cast<std::size_t>(index)];
    }

    /// Whether the file lies there.
    bool isInPlace(const File& file) const;

private:
    void take(const CacheScanner::File& found, CacheWarnings& warnings);
    std::size_t directoryIndex(const CacheScanner::File& found, CacheWarnings& warnings);

    const StorePlace m_Place;
    std::vector<File> m_Files;
    std::vector<std::string> m_Marks;
    std::vector<Directory> m_Directories;
};
