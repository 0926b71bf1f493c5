#include "tools/cache/CacheScanner.h"

#include "tools/cache/BlockName.h"
#include "tools/files/FileKind.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/PlainNumber.h"

#include <algorithm>
#include <cerrno>
#include <optional>

#include <sys/stat.h>

namespace {

constexpr int s_NoBucket = -1;

std::optional<int> bucketNumber(const std::string& name)
{
    return plainNumber<int>(name.data(), name.data() + name.size());
}

bool isFolder(const std::string& path)
{
    struct stat status = {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Buckets by number, and everything else by name behind them.
void sortNames(std::vector<std::string>& names)
{
    std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
        const std::optional<int> first = bucketNumber(a);
        const std::optional<int> second = bucketNumber(b);
        if (first && second)
            return *first < *second;
        return first.has_value() != second.has_value() ? first.has_value() : a < b;
    });
}

} // namespace

CacheScanner::CacheScanner(ErrorReport& errors)
    : m_Errors(errors),
      m_All(true),
      m_Order(FolderNames::Order::Sorted),
      m_WithSizes(true),
      m_Root(0),
      m_Visit(nullptr)
{}

void CacheScanner::only(const std::string& subCache)
{
    m_All = false;
    m_Only = subCache;
}

void CacheScanner::run(const std::vector<std::string>& roots,
                       const std::function<void(const File&)>& visit)
{
    m_Visit = &visit;
    for (m_Root = 0; m_Root < roots.size(); ++m_Root) {
        m_RootPath = roots[m_Root];
        scanRoot();
    }
}

bool CacheScanner::isBlockName(const std::string& name)
{
    return BlockName::parse(name).has_value();
}

void CacheScanner::scanRoot()
{
    if (!m_All) {
        scanBuckets(m_Only.empty() ? m_RootPath : FolderNames::joined(m_RootPath, m_Only), m_Only);
        return;
    }
    scanBuckets(m_RootPath, {});
}

void CacheScanner::scanBuckets(const std::string& folder, const std::string& subCache)
{
    std::vector<std::string> names;
    const std::string reason = FolderNames::read(folder, names);
    if (!reason.empty())
        m_Errors.add(folder, reason);
    sortNames(names);
    for (const std::string& name : names) {
        const std::string path = FolderNames::joined(folder, name);
        const std::optional<int> bucket = bucketNumber(name);
        // Sub-caches stand beside the buckets of the unnamed one.
        const bool isRoot = subCache.empty();
        if (!isFolder(path))
            visit(folder, subCache, s_NoBucket, name);
        else if (bucket)
            scanBucket(path, subCache, *bucket);
        else if (!isRoot)
            visit(folder, subCache, s_NoBucket, name);
        else if (m_All)
            scanBuckets(path, name);
    }
}

void CacheScanner::scanBucket(const std::string& folder, const std::string& subCache, int bucket)
{
    std::string reason;
    if (m_WithSizes) {
        std::vector<std::string> names;
        reason = FolderNames::read(folder, names, m_Order);
        for (const std::string& name : names)
            visit(folder, subCache, bucket, name);
    } else {
        std::vector<FolderNames::Entry> entries;
        reason = FolderNames::readEntries(folder, entries);
        for (const FolderNames::Entry& entry : entries)
            visit(folder, subCache, bucket, entry.m_Name, entry.m_IsSurelyFile);
    }
    if (!reason.empty())
        m_Errors.add(folder, reason);
}

void CacheScanner::visit(const std::string& folder, const std::string& subCache, int bucket,
                         const std::string& name, bool isKnownFile)
{
    m_File.m_Root = m_Root;
    m_File.m_SubCache = subCache;
    m_File.m_Bucket = bucket;
    m_File.m_Name = name;
    m_File.m_Path = folder;
    if (m_File.m_Path.empty() || m_File.m_Path.back() != '/')
        m_File.m_Path += '/';
    m_File.m_Path += name;
    m_File.m_Size = 0;
    m_File.m_Mode = S_IFREG;
    if (!isKnownFile && !look())
        return;
    const bool isRegular = S_ISREG(m_File.m_Mode);
    const std::optional<BlockName> block =
        isRegular && bucket != s_NoBucket ? BlockName::parse(name) : std::nullopt;
    m_File.m_IsBlock = block.has_value();
    m_File.m_BlockName = block.value_or(BlockName());
    m_File.m_IsLog = isRegular && bucket == s_NoBucket && name == "TdxLog.txt";
    (*m_Visit)(m_File);
}

bool CacheScanner::look()
{
    struct stat status = {};
    if (::lstat(m_File.m_Path.c_str(), &status) != 0) {
        // A collector or a writer may have been at work.
        if (errno != ENOENT)
            m_Errors.add(m_File.m_Path, FileKind::errorText(errno));
        return false;
    }
    m_File.m_Size = status.st_size;
    m_File.m_Mode = status.st_mode;
    return true;
}
