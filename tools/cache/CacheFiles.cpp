#include "tools/cache/CacheFiles.h"

#include "tools/cache/CacheWarnings.h"
#include "tools/files/FileKind.h"
#include "tools/terminal/ErrorReport.h"

#include <sys/stat.h>

namespace {

void remarkLooseFolder(const std::string& path, CacheWarnings& remarks)
{
    struct stat status = {};
    if (::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
        CacheFiles::isLoose(status.st_mode))
        CacheFiles::remarkLoose(path, remarks);
}

} // namespace

CacheFiles::CacheFiles(StorePlace place, bool all, ErrorReport& errors, CacheWarnings& remarks,
                       Sizes sizes)
    : m_Place(std::move(place)), m_Sizes(sizes), m_Bytes(0)
{
    CacheScanner scan(errors);
    scan.inAnyOrder();
    if (!hasSizes())
        scan.withoutSizes();
    if (!all)
        scan.only(m_Place.m_SubCache);
    for (const std::string& root : m_Place.m_Roots) {
        struct stat status = {};
        // The root itself may be a link: that is the user's word.
        if (::stat(root.c_str(), &status) == 0 && isLoose(status.st_mode))
            remarkLoose(root, remarks);
    }
    scan.run(m_Place.m_Roots,
             [this, &remarks](const CacheScanner::File& found) { take(found, remarks); });
}

bool CacheFiles::isLoose(unsigned int mode)
{
    return (mode & (S_IWGRP | S_IWOTH)) != 0;
}

void CacheFiles::remarkLoose(const std::string& path, CacheWarnings& remarks)
{
    remarks.add(CacheWarnings::Loose, path,
                "lets others write; take that right from them by chmod go-w");
}

void CacheFiles::take(const CacheScanner::File& found, CacheWarnings& remarks)
{
    if (found.m_IsLog)
        return;
    if (S_ISLNK(found.m_Mode)) {
        remarks.add(CacheWarnings::Link, found.m_Path,
                    "is a symbolic link, which is not followed; the store would; remove it if "
                    "nobody means it");
        return;
    }
    if (!found.m_IsBlock) {
        std::string kind = FileKind::whyNotAFile(found.m_Mode);
        if (kind.empty())
            kind = CacheScanner::isBlockName(found.m_Name)
                       ? "is named as a block, but lies in no bucket"
                       : "is named as no block is";
        remarks.add(CacheWarnings::Foreign, found.m_Path,
                    kind + "; the store has not put it there; move it elsewhere if somebody needs "
                           "it");
        return;
    }
    if (isLoose(found.m_Mode))
        remarkLoose(found.m_Path, remarks);
    File file;
    file.m_Name = found.m_BlockName;
    file.m_Size = found.m_Size;
    file.m_Folder = folderIndex(found, remarks);
    m_Files.push_back(file);
    m_Bytes += found.m_Size;
}

std::size_t CacheFiles::folderIndex(const CacheScanner::File& found, CacheWarnings& remarks)
{
    // The scan goes from one folder to the next.
    if (!m_Folders.empty()) {
        const Folder& last = m_Folders.back();
        if (last.m_Root == found.m_Root && last.m_Bucket == found.m_Bucket &&
            last.m_SubCache == found.m_SubCache)
            return m_Folders.size() - 1;
    }
    Folder folder;
    folder.m_Path = found.m_Path.substr(0, found.m_Path.size() - found.m_Name.size() - 1);
    folder.m_Root = found.m_Root;
    folder.m_SubCache = found.m_SubCache;
    folder.m_Bucket = found.m_Bucket;
    remarkLooseFolder(folder.m_Path, remarks);
    m_Folders.push_back(folder);
    return m_Folders.size() - 1;
}

std::string CacheFiles::pathOf(const File& file) const
{
    const std::string& folder = folderOf(file).m_Path;
    std::string path;
    path.reserve(folder.size() + 1 + BlockName::s_MostCharacters);
    path = folder;
    path += '/';
    file.m_Name.appendTo(path);
    return path;
}

BlockPlace CacheFiles::placeOf(const File& file) const
{
    return BlockPlace::of(file.m_Name, static_cast<int>(m_Place.m_Roots.size()), m_Place.m_Buckets);
}

bool CacheFiles::isInPlace(const File& file) const
{
    const BlockPlace place = placeOf(file);
    const Folder& folder = folderOf(file);
    return place.m_Root == static_cast<int>(folder.m_Root) && place.m_Bucket == folder.m_Bucket;
}
