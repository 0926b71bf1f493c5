#pragma once

#include <QtGlobal>

#include <atomic>
#include <string>

class ErrorReport;
class FileReader;
class ProgressBar;
class ToolStore;
class ZebDataReference;
struct StoredFile;
struct StoredFiles;
struct StoredSegment;

/// The second pass of an ingest: evicts everything, then reads every block and every list of blocks
/// from the disk and compares it with the file that it came from, on several threads.
///
/// A file that differs, in any byte or in its length, is an error, and so is a file that can no
/// longer be read. Each such file is reported once.
class FileComparer
{
public:
    FileComparer(int threads, ToolStore& store, ErrorReport& errors, ProgressBar& progress);

    /// Compares everything in `stored`. Everything must be written, and no accessor open.
    void run(StoredFiles& stored);

    /// How many files differ from what was stored.
    qint64 differences() const { return m_Differences.load(); }

    /// How many bytes from the store were equal.
    qint64 bytes() const { return m_DoneBytes.load(); }

private:
    void work(StoredFiles& stored);
    void checkSegment(StoredFiles& stored, const StoredSegment& segment, FileReader& reader);

    /// Reads the file's list of blocks from the disk.
    void checkList(StoredFile& file);

    /// Whether the segment equals the file that is open.
    bool isEqual(qint64 blockSize, const StoredSegment& segment, FileReader& reader);

    const int m_Threads;
    ToolStore& m_Store;
    ErrorReport& m_Errors;
    ProgressBar& m_Progress;
    std::atomic<std::size_t> m_NextSegment = 0;
    std::atomic<qint64> m_DoneBytes = 0;
    std::atomic<qint64> m_Differences = 0;
};
