#pragma once

#include "tools/cache/BlockName.h"
#include "tools/files/FolderNames.h"

#include <QtGlobal>

#include <functional>
#include <string>
#include <vector>

class ErrorReport;

/// Walks the files of a disk cache as they lie in its folders, in the order of roots, sub-caches,
/// buckets and names. Reads folders only. Follows no symbolic link below a root.
class CacheScanner
{
public:
    struct File
    {
        std::size_t m_Root = 0;
        /// Empty for the unnamed one.
        std::string m_SubCache;
        int m_Bucket = 0;
        std::string m_Name;
        std::string m_Path;
        /// What the file system says of it, without following a link. Size and permissions are 0
        /// where they are not asked for.
        qint64 m_Size = 0;
        unsigned int m_Mode = 0;
        /// Whether it is a regular file whose name is the text form of a hash.
        bool m_IsBlock = false;
        /// That name, where it is.
        BlockName m_BlockName;
        /// Whether it is the store's own log.
        bool m_IsLog = false;
    };

    explicit CacheScanner(ErrorReport& errors);

    /// The files of a bucket come in whatever order the file system has them from now on, which is
    /// faster.
    void inAnyOrder() { m_Order = FolderNames::Order::AsRead; }

    /// Plain files in buckets are not looked at from now on where the folder tells that they are
    /// files, which is faster again: their sizes and permissions are 0. They come in any order.
    void withoutSizes() { m_WithSizes = false; }

    /// Only this sub-cache, from now on; the empty name for the unnamed one.
    void only(const std::string& subCache);

    /// Calls `visit` for everything that lies in the buckets, and for what else is not a folder of
    /// the cache's own: that is in no bucket, which is -1.
    void run(const std::vector<std::string>& roots, const std::function<void(const File&)>& visit);

    /// Whether this is the text form of a hash as blocks have it.
    static bool isBlockName(const std::string& name);

private:
    void scanRoot();
    void scanBuckets(const std::string& folder, const std::string& subCache);
    void scanBucket(const std::string& folder, const std::string& subCache, int bucket);
    void visit(const std::string& folder, const std::string& subCache, int bucket,
               const std::string& name, bool isKnownFile = false);
    // Whether something stands there; fills in what the file system says of it.
    bool look();

    ErrorReport& m_Errors;
    bool m_All;
    FolderNames::Order m_Order;
    bool m_WithSizes;
    std::string m_Only;

    // Of the run that is going on.
    std::size_t m_Root;
    std::string m_RootPath;
    const std::function<void(const File&)>* m_Visit;
    // What is visited. One for all, so that the texts keep their memory.
    File m_File;
};
