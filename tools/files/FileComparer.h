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

/// The second pass: gets every block back from the store and compares it, byte by byte, with the
/// file that it came from, on several threads.
///
/// A file that differs, in any byte or in its length, is an error, and so is one that can't be read
/// any more. There is one line for each such file.
class FileComparer
{
public:
    FileComparer(int threads, ToolStore& store, ErrorReport& errors, ProgressBar& progress);

    /// Compares all that is in `stored`.
    void run(StoredFiles& stored);

    /// How many files differ from what was stored.
    qint64 differences() const { return m_Differences.load(); }

    /// How many bytes came back from the store and were equal.
    qint64 bytes() const { return m_DoneBytes.load(); }

private:
    void work(StoredFiles& stored);
    void checkSegment(StoredFiles& stored, const StoredSegment& segment, FileReader& reader);

    /// Compares the segment with the file that is open. Gives the reason when that cannot be done.
    ///
    /// @param equal whether there was no difference, where there is no reason
    std::string compare(qint64 blockSize, const StoredSegment& segment, FileReader& reader,
                        bool& equal);

    const int m_Threads;
    ToolStore& m_Store;
    ErrorReport& m_Errors;
    ProgressBar& m_Progress;
    std::atomic<std::size_t> m_NextSegment;
    std::atomic<qint64> m_DoneBytes;
    std::atomic<qint64> m_Differences;
};
