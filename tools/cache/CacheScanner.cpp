#include "tools/cache/CacheScanner.h"

#include "io/ZebBlockFile.h"
#include "support/ZebPlainNumber.h"
#include "tools/cache/UnfinishedMark.h"
#include "tools/files/FileReader.h"
#include "tools/files/FileSystem.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/StopRequest.h"
#include "tools/terminal/ToolError.h"

#include <algorithm>
#include <cerrno>

#include <sys/stat.h>

namespace {

constexpr int s_NoBucket = -1;

// Empty unless the name is a number as the store writes it.
std::optional<int> bucketNumber(const std::string& name)
{
    return ZebPlainNumber<int>(name.data(), name.data() + name.size());
}

bool isDirectory(const std::string& path)
{
    struct stat status = {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

} // namespace

CacheScanner::CacheScanner(ErrorReport& errors) : m_Errors(errors) {}

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
        const std::string& root = roots[m_Root];
        scanBuckets(m_Only.empty() ? root : FileSystem::joined(root, m_Only), m_Only);
    }
}

std::optional<qint64> CacheScanner::fileBytesOf(const File& file, ErrorReport& errors)
{
    struct stat status = {};
    if (::lstat(file.m_Path.c_str(), &status) == 0)
        return status.st_size;
    if (errno != ENOENT)
        errors.add(file.m_Path, ToolError::ofSystem(errno));
    return std::nullopt;
}

std::optional<qint64> CacheScanner::blockBytesOf(const File& file, ErrorReport& errors)
{
    qint64 blockBytes = 0;
    const auto error = ToolError::of([&file, &blockBytes] {
        FileReader reader;
        reader.open(file.m_Path);
        const QByteArray bytes = reader.read(0, ZebBlockFile::s_HeaderBytes);
        if (bytes.size() < ZebBlockFile::s_HeaderBytes)
            throw ToolError("is too short for a block");
        blockBytes = ZebBlockFile::Header::decode(bytes.constData()).m_BlockBytes;
    });
    if (!error)
        return blockBytes;
    if (error->code() != ENOENT)
        errors.add(file.m_Path, *error);
    return std::nullopt;
}

void CacheScanner::scanBuckets(const std::string& directory, const std::string& subCache)
{
    std::vector<FileSystem::Entry> entries = FileSystem::entries(directory, m_Errors);
    // Buckets by number, then everything else by name.
    const auto others =
        std::stable_partition(entries.begin(), entries.end(), [](const FileSystem::Entry& entry) {
            return bucketNumber(entry.m_Name).has_value();
        });
    std::sort(entries.begin(), others, [](const FileSystem::Entry& a, const FileSystem::Entry& b) {
        return *bucketNumber(a.m_Name) < *bucketNumber(b.m_Name);
    });
    for (const FileSystem::Entry& entry : entries) {
        const std::string path = FileSystem::joined(directory, entry.m_Name);
        const std::optional<int> bucket = bucketNumber(entry.m_Name);
        const bool isUnnamed = subCache.empty();
        if (!isDirectory(path) || (!bucket && !isUnnamed))
            visit(directory, subCache, s_NoBucket, entry.m_Name);
        else if (bucket)
            scanBucket(path, subCache, *bucket);
        // Sub-caches lie next to the buckets of the unnamed one.
        else if (m_All)
            scanBuckets(path, entry.m_Name);
    }
}

void CacheScanner::scanBucket(const std::string& directory, const std::string& subCache, int bucket)
{
    for (const FileSystem::Entry& entry : FileSystem::entries(directory, m_Errors))
        visit(directory, subCache, bucket, entry.m_Name, entry.m_IsRegularFile);
}

void CacheScanner::visit(const std::string& directory, const std::string& subCache, int bucket,
                         const std::string& name, bool isRegularFile)
{
    StopRequest::check();
    m_File.m_Root = m_Root;
    m_File.m_SubCache = subCache;
    m_File.m_Bucket = bucket;
    m_File.m_Name = name;
    m_File.m_Path = FileSystem::joined(directory, name);
    m_File.m_Mode = S_IFREG;
    struct stat status = {};
    if (!isRegularFile && ::lstat(m_File.m_Path.c_str(), &status) != 0) {
        // A collector or a writer may have removed it.
        if (errno != ENOENT)
            m_Errors.add(m_File.m_Path, ToolError::ofSystem(errno));
        return;
    }
    if (!isRegularFile)
        m_File.m_Mode = status.st_mode & S_IFMT;
    const bool isRegular = S_ISREG(m_File.m_Mode);
    const std::optional<ZebBlockName> block =
        isRegular && bucket != s_NoBucket ? ZebBlockName::parse(name) : std::nullopt;
    m_File.m_IsBlock = block.has_value();
    m_File.m_BlockName = block.value_or(ZebBlockName());
    m_File.m_IsLog = isRegular && bucket == s_NoBucket && name == "TdxLog.txt";
    m_File.m_IsMark = isRegular && bucket == s_NoBucket && UnfinishedMark::isName(name);
    (*m_Visit)(m_File);
}
