#pragma once

#include "tools/cache/BlockFinding.h"
#include "tools/cache/BlockVerifier.h"
#include "tools/cache/CacheFiles.h"
#include "tools/cache/MemoryBudget.h"

#include <QtGlobal>

#include <atomic>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

class ErrorReport;
class ProgressBar;
class CacheWarnings;
class SummaryText;

/// Checks the block files of a cache on several threads, with a line for each that is damaged. What
/// could not be checked is an error. Writes nothing.
class CacheVerifier
{
public:
    /// All files, in percent.
    static constexpr int s_All = 100;

    struct Options
    {
        int m_Threads = 1;
        /// Whether to look at places and headers only.
        bool m_Fast = false;
        qint64 m_LargestBlock = BlockVerifier::s_MostBlockBytes;
        /// Which share of the files is checked, chosen anew each time.
        int m_Percent = s_All;
    };

    struct Damage
    {
        /// Index into the files.
        std::size_t m_File = 0;
        BlockVerdict m_Verdict;
    };

    CacheVerifier(const Options& options, const CacheFiles& files, ErrorReport& errors,
                  CacheWarnings& remarks, ProgressBar& progress);

    /// Checks them all, once.
    void run();

    /// What is damaged, in the order of the files.
    const std::vector<Damage>& damage() const { return m_Damage; }

    /// How many files are damaged in this way.
    qint64 damaged(BlockFinding kind) const;

    /// How many files were looked at, and what they have on disk.
    qint64 files() const { return m_Files.load(); }
    qint64 bytes() const { return m_Bytes.load(); }

    /// The numbers, and for programs the list of what is damaged.
    void addTo(SummaryText& summary) const;

private:
    // Null for all files.
    using Choice = const std::vector<std::size_t>*;

    void work(Choice choice);
    std::vector<std::size_t> choose() const;
    BlockVerdict wrongPlace(const CacheFiles::File& file) const;
    // Counts a file whose verdict is known.
    void take(std::size_t index, const BlockVerdict& verdict, const FileStamp* stamp);
    // Makes up for the look at the file that its listing has saved. Returns its size.
    qint64 lookAt(const CacheFiles::File& file, const FileStamp* stamp) const;
    void report(std::size_t index, const std::string& path, const BlockVerdict& verdict);

    const Options m_Options;
    const CacheFiles& m_All;
    ErrorReport& m_Errors;
    CacheWarnings& m_Remarks;
    ProgressBar& m_Progress;
    MemoryBudget m_Budget;
    std::atomic<std::size_t> m_Next;
    std::atomic<qint64> m_Files;
    std::atomic<qint64> m_Bytes;

    // Guards the list. Nothing is called inside it.
    std::mutex m_Mutex;
    std::vector<Damage> m_Damage;
};
