#pragma once

#include "tools/cache/BlockName.h"
#include "tools/cache/BlockPlace.h"
#include "tools/cache/CacheScanner.h"
#include "tools/cache/StorePlace.h"

#include <QtGlobal>

#include <string>
#include <utility>
#include <vector>

class ErrorReport;
class CacheWarnings;

/// The block files of a cache on disk as they were found, in 80 bytes for each. What else lies
/// there is a remark. Reads folders only, and follows no link below a root.
class CacheFiles
{
public:
    struct File
    {
        BlockName m_Name;
        qint64 m_Size = 0;
        /// Index into folders().
        std::size_t m_Folder = 0;
    };

    struct Folder
    {
        std::string m_Path;
        std::size_t m_Root = 0;
        std::string m_SubCache;
        int m_Bucket = 0;
    };

    /// Whether the files are looked at. Their sizes are 0, and loose permissions of files are no
    /// remarks, where not: whoever opens them sees both.
    enum class Sizes
    {
        Known,
        Unknown
    };

    /// @param place the roots, and the sub-cache where `all` does not say that all are meant
    CacheFiles(StorePlace place, bool all, ErrorReport& errors, CacheWarnings& remarks,
               Sizes sizes = Sizes::Known);

    bool hasSizes() const { return m_Sizes == Sizes::Known; }

    /// Whether others than its owner may write a file or folder of this mode.
    static bool isLoose(unsigned int mode);

    /// The remark on that.
    static void remarkLoose(const std::string& path, CacheWarnings& remarks);

    const std::vector<File>& files() const { return m_Files; }
    const Folder& folderOf(const File& file) const { return m_Folders[file.m_Folder]; }
    std::string pathOf(const File& file) const;

    /// The sum of their sizes.
    qint64 bytes() const { return m_Bytes; }

    /// Where the file should lie.
    BlockPlace placeOf(const File& file) const;

    const std::string& rootPath(int index) const
    {
        return m_Place.m_Roots[static_cast<std::size_t>(index)];
    }

    /// Whether it lies there.
    bool isInPlace(const File& file) const;

private:
    void take(const CacheScanner::File& found, CacheWarnings& remarks);
    std::size_t folderIndex(const CacheScanner::File& found, CacheWarnings& remarks);

    const StorePlace m_Place;
    const Sizes m_Sizes;
    std::vector<File> m_Files;
    std::vector<Folder> m_Folders;
    qint64 m_Bytes;
};
