#pragma once

#include "tools/cache/CacheScanner.h"

#include <QtGlobal>

#include <map>
#include <string>
#include <tuple>
#include <vector>

class ErrorReport;
class SummaryText;

/// Files and bytes of a cache on disk, and their distribution.
class CacheStatistics
{
public:
    struct Sum
    {
        qint64 m_Files = 0;
        /// The bytes of the files.
        qint64 m_FileBytes = 0;
        /// The bytes of their blocks once decompressed.
        qint64 m_BlockBytes = 0;

        void add(const Sum& other);
    };

    /// @param subCache null for all sub-caches
    CacheStatistics(const std::vector<std::string>& roots, const std::string* subCache,
                    ErrorReport& errors);

    const Sum& total() const { return m_Total; }

    SummaryText shown() const;

private:
    // Root, sub-cache, bucket.
    using Place = std::tuple<std::size_t, std::string, int>;

    void count(const CacheScanner::File& file, ErrorReport& errors);
    std::string table() const;

    const std::vector<std::string>& m_Roots;
    std::map<Place, Sum> m_Sums;
    Sum m_Total;
    qint64 m_Unexpected = 0;
    qint64 m_Unfinished = 0;
};
