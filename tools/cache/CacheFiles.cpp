#include "tools/cache/CacheFiles.h"

#include "hash/ZebHashText.h"
#include "tools/cache/CacheWarnings.h"
#include "tools/cache/UnfinishedMark.h"
#include "tools/files/FileSystem.h"

#include <sys/stat.h>

CacheFiles::CacheFiles(StorePlace place, bool all, ErrorReport& errors, CacheWarnings& warnings)
    : m_Place(std::move(place))
{
    CacheScanner scanner(errors);
    if (!all)
        scanner.only(m_Place.m_SubCache);
    for (const std::string& root : m_Place.m_Roots) {
        struct stat status = {};
        // The root itself may be a link: the user chose it.
        if (::stat(root.c_str(), &status) == 0)
            warnings.addIfWritable(root, status.st_mode);
    }
    scanner.run(m_Place.m_Roots,
                [this, &warnings](const CacheScanner::File& found) { take(found, warnings); });
}

void CacheFiles::take(const CacheScanner::File& found, CacheWarnings& warnings)
{
    if (found.m_IsLog)
        return;
    if (found.m_IsMark) {
        warnings.add(CacheWarnings::Unfinished, found.m_Path, UnfinishedMark::textOf(found.m_Path));
        m_Marks.push_back(found.m_Path);
        return;
    }
    if (S_ISLNK(found.m_Mode)) {
        warnings.add(CacheWarnings::Link, found.m_Path,
                     "is a symbolic link, which is not checked; the store would follow it; remove "
                     "it unless it is intended");
        return;
    }
    if (!found.m_IsBlock) {
        std::string kind = FileSystem::whyNotAFile(found.m_Mode);
        if (kind.empty())
            kind = ZebBlockName::parse(found.m_Name)
                       ? "is named like a block, but is not in a bucket"
                       : "is not named like a block";
        warnings.add(CacheWarnings::Unexpected, found.m_Path,
                     kind + "; the store did not create it; move it elsewhere if it is needed");
        return;
    }
    m_Files.push_back({found.m_BlockName, directoryIndex(found, warnings)});
}

std::size_t CacheFiles::directoryIndex(const CacheScanner::File& found, CacheWarnings& warnings)
{
    // The scan visits one directory after another.
    if (!m_Directories.empty()) {
        const Directory& last = m_Directories.back();
        if (last.m_Root == found.m_Root && last.m_Bucket == found.m_Bucket &&
            last.m_SubCache == found.m_SubCache)
            return m_Directories.size() - 1;
    }
    const std::string path = found.m_Path.substr(0, found.m_Path.size() - found.m_Name.size() - 1);
    struct stat status = {};
    if (::lstat(path.c_str(), &status) == 0)
        warnings.addIfWritable(path, status.st_mode);
    m_Directories.push_back({path, found.m_Root, found.m_SubCache, found.m_Bucket});
    return m_Directories.size() - 1;
}

std::string CacheFiles::pathOf(const File& file) const
{
    const std::string& directory = directoryOf(file).m_Path;
    std::string path;
    path.reserve(directory.size() + 1 + ZebHashText::s_MaxBlockCharacters);
    path = directory;
    path += '/';
    file.m_Name.appendTo(path);
    return path;
}

ZebBlockPlace CacheFiles::placeOf(const File& file) const
{
    return ZebBlockPlace::of(file.m_Name, static_cast<int>(m_Place.m_Roots.size()),
                             m_Place.m_Buckets);
}

bool CacheFiles::isInPlace(const File& file) const
{
    const ZebBlockPlace place = placeOf(file);
    const Directory& directory = directoryOf(file);
    return place.m_Root == static_cast<int>(directory.m_Root) &&
           place.m_Bucket == directory.m_Bucket;
}
