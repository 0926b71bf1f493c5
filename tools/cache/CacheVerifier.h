#pragma once

#include "io/ZebBlockFileChecker.h"
#include "io/ZebMemoryBudget.h"
#include "tools/cache/CacheFiles.h"

#include <QtGlobal>

#include <atomic>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

class CacheWarnings;
class ErrorReport;
class ProgressBar;
class SummaryText;

/// Checks the block files of a cache on several threads, and prints a line for each damaged file. A
/// file that could not be checked is an error. Writes nothing.
class CacheVerifier
{
public:
    struct Options
    {
        int m_Threads = 1;
        /// Whether to check places and headers only.
        bool m_Fast = false;
        qint64 m_LargestBlock = ZebBlockFile::s_MaxBlockBytes;
        /// The share of the files to check, chosen anew each time, in percent.
        int m_Percent = 100;
    };

    struct Damage
    {
        /// Index into the files.
        std::size_t m_File = 0;
        ZebBlockVerdict m_Verdict;
    };

    CacheVerifier(const Options& options, const CacheFiles& files, ErrorReport& errors,
                  CacheWarnings& warnings, ProgressBar& progress);

    /// Checks the files. Must be called once.
    void run();

    /// The damaged files, in the order of the files.
    const std::vector<Damage>& damage() const { return m_Damage; }

    /// How many files have this damage.
    qint64 damaged(ZebBlockFinding kind) const;

    /// How many files were checked, and their bytes on disk.
    qint64 files() const { return m_Files.load(); }
    qint64 bytes() const { return m_Bytes.load(); }

    /// The numbers, and for programs the list of damaged files.
    void addTo(SummaryText& summary) const;

private:
    void choose();
    void work();
    ZebBlockVerdict wrongPlace(const CacheFiles::File& file) const;
    void take(std::size_t index, const ZebBlockVerdict& verdict, const ZebFileStamp* stamp);
    void report(std::size_t index, const std::string& path, const ZebBlockVerdict& verdict);

    const Options m_Options;
    const CacheFiles& m_All;
    ErrorReport& m_Errors;
    CacheWarnings& m_Warnings;
    ProgressBar& m_Progress;
    ZebMemoryBudget m_Budget;
    // Indexes of the files to check.
    std::vector<std::size_t> m_Chosen;
    std::atomic<std::size_t> m_Next = 0;
    std::atomic<qint64> m_Files = 0;
    std::atomic<qint64> m_Bytes = 0;

    // Guards the list. A leaf lock.
    std::mutex m_Mutex;
    std::vector<Damage> m_Damage;
};
