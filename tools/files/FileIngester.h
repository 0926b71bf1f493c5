#pragma once

#include "tools/files/FileWalker.h"
#include "tools/files/StoredFiles.h"

#include <QtGlobal>

#include <atomic>
#include <deque>
#include <mutex>
#include <string>

class ErrorReport;
class FileReader;
class ProgressBar;
class ToolStore;
class ZebDataReference;

/// The first pass: cuts files into blocks and adds them to the store on several threads.
///
/// A file that can't be read to its end is an error, and nothing of it is kept; the rest goes on.
/// Threads that read faster than the disk cache writes wait for it, and each has a few blocks at
/// most on their way to a hash, so that what waits for writing or hashing stays bounded.
///
/// In the end each file has a group block, which lists its blocks.
class FileIngester
{
public:
    struct Options
    {
        qint64 m_BlockSize;
        int m_Threads;
        qint64 m_Memory;
    };

    FileIngester(const Options& options, ToolStore& store, ErrorReport& errors,
                 ProgressBar& progress);

    /// Stores the files of `walk`. To be called once.
    StoredFiles run(const FileWalker& walk);

private:
    /// The next piece of work, made when it is asked for; null when there is none.
    StoredSegment* nextSegment();

    void work();
    void storeSegment(StoredSegment& segment, FileReader& reader);

    /// Stores the segment's blocks from the file that is open. Gives the reason when that fails.
    std::string storeBlocks(StoredSegment& segment, const StoredFile& file, FileReader& reader);

    void storeBlock(const QByteArray& block, StoredSegment& segment,
                    std::deque<ZebDataReference>& pending);

    void fail(StoredFile& file, const std::string& reason);
    void dropFailedFiles();

    /// Makes the group blocks of the files that are whole.
    void makeGroups();

    const Options m_Options;
    const qint64 m_SegmentBytes;
    // How many blocks a thread may have without a hash.
    const std::size_t m_MostPending;
    ToolStore& m_Store;
    ErrorReport& m_Errors;
    ProgressBar& m_Progress;
    std::atomic<qint64> m_DoneBytes;
    StoredFiles m_Stored;

    // Guards the place where the next segment begins, and the growth of m_Stored.m_Segments.
    std::mutex m_CursorMutex;
    std::size_t m_NextFile;
    qint64 m_NextOffset;
};
