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

/// The first pass of an ingest: cuts files into blocks and adds them to the store, on several
/// threads. At the end each file has a group block, which lists its blocks.
///
/// A file that cannot be read to its end is an error, and nothing of it is kept; the other files
/// are stored. Threads wait while the writers are full, and each has only a few blocks without a
/// hash, so that the memory for queued blocks is bounded.
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

    /// Stores the files of `walk`. Must be called once.
    StoredFiles run(const FileWalker& walk);

private:
    /// The next piece of work; null when there is none.
    StoredSegment* nextSegment();

    void work();
    void storeSegment(StoredSegment& segment, FileReader& reader);

    /// Stores the segment's blocks from the file that is open.
    void storeBlocks(StoredSegment& segment, const StoredFile& file, FileReader& reader);

    void storeBlock(const QByteArray& block, StoredSegment& segment,
                    std::deque<ZebDataReference>& pending);

    void fail(StoredFile& file, const std::string& reason);

    /// Makes the group blocks of the complete files.
    void makeGroups();

    const Options m_Options;
    const qint64 m_SegmentBytes;
    // How many blocks without a hash a thread may have.
    const std::size_t m_MostPending;
    ToolStore& m_Store;
    ErrorReport& m_Errors;
    ProgressBar& m_Progress;
    std::atomic<qint64> m_DoneBytes = 0;
    StoredFiles m_Stored;

    // Guards the start of the next segment, and the growth of m_Stored.m_Segments.
    std::mutex m_CursorMutex;
    std::size_t m_NextFile = 0;
    qint64 m_NextOffset = 0;
};
