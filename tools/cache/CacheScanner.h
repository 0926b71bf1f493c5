#pragma once

#include "hash/ZebBlockName.h"

#include <QtGlobal>

#include <functional>
#include <optional>
#include <string>
#include <vector>

class ErrorReport;

/// Walks the files of a disk cache as they lie in its directories, in the order of roots,
/// sub-caches, buckets and names. Reads directories only, and follows no symbolic link below a
/// root.
class CacheScanner
{
public:
    struct File
    {
        std::size_t m_Root = 0;
        /// Empty for the unnamed sub-cache.
        std::string m_SubCache;
        /// -1 for whatever lies outside of the buckets.
        int m_Bucket = 0;
        std::string m_Name;
        std::string m_Path;
        /// The type of the file, and no more: permissions would cost a system call for each.
        unsigned int m_Mode = 0;
        /// Whether it is a regular file in a bucket, named like a block.
        bool m_IsBlock = false;
        /// The name of a block file.
        ZebBlockName m_BlockName;
        /// Whether it is the store's own log.
        bool m_IsLog = false;
        /// Whether it is the mark of an ingest that has not finished.
        bool m_IsMark = false;
    };

    explicit CacheScanner(ErrorReport& errors);

    /// Restricts the scan to this sub-cache; empty for the unnamed one.
    void only(const std::string& subCache);

    /// Calls `visit` for everything that lies in the buckets, and for everything else that is not a
    /// directory of the cache.
    void run(const std::vector<std::string>& roots, const std::function<void(const File&)>& visit);

    /// The size of a block file in bytes, and that of the plain block from its header. Empty when
    /// the file has been removed since the scan listed it, as a collector may do; any other failure
    /// is an error, and empty as well.
    static std::optional<qint64> fileBytesOf(const File& file, ErrorReport& errors);
    static std::optional<qint64> blockBytesOf(const File& file, ErrorReport& errors);

private:
    void scanBuckets(const std::string& directory, const std::string& subCache);
    void scanBucket(const std::string& directory, const std::string& subCache, int bucket);
    void visit(const std::string& directory, const std::string& subCache, int bucket,
               const std::string& name, bool isRegularFile = false);

    ErrorReport& m_Errors;
    bool m_All = true;
    std::string m_Only;

    // Of the run in progress.
    std::size_t m_Root = 0;
    const std::function<void(const File&)>* m_Visit = nullptr;
    // The file to visit. One for all, so that its strings keep their memory.
    File m_File;
};
