#pragma once

#include "tools/cache/CacheScanner.h"

#include <QtGlobal>

#include <map>
#include <string>
#include <tuple>
#include <vector>

class ErrorReport;
class SummaryText;

/// Files and bytes of a cache on disk, and how they are spread.
class CacheStatistics
{
public:
    struct Sum
    {
        qint64 m_Files = 0;
        /// What the files take.
        qint64 m_FileBytes = 0;
        /// What their blocks have when they are read.
        qint64 m_BlockBytes = 0;

        void add(const Sum& other);
    };

    /// @param subCache null for all of them
    CacheStatistics(const std::vector<std::string>& roots, const std::string* subCache,
                    ErrorReport& errors);

    const Sum& total() const { return m_Total; }

    /// Things that are no block files: whatever others have put there, and stumps of files.
    qint64 foreign() const { return m_Foreign; }

    SummaryText shown() const;

private:
    // Root, sub-cache, bucket.
    using Place = std::tuple<std::size_t, std::string, int>;

    void count(const CacheScanner::File& file, ErrorReport& errors);
    std::string table() const;

    const std::vector<std::string>& m_Roots;
    std::map<Place, Sum> m_Sums;
    Sum m_Total;
    qint64 m_Foreign;
};
