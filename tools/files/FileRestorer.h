#pragma once

#include "tools/files/Manifest.h"

#include <QtGlobal>

#include <atomic>
#include <string>

class ErrorReport;
class ProgressBar;
class ToolStore;
class ZebDataReference;

/// Brings the files of a manifest back from the store, on several threads, a file at a time each.
///
/// Every block's digest is computed anew and compared with its name, and so is the digest of the
/// list of blocks, so a file that comes back is the file that was stored, byte for byte. One that
/// cannot be had, or differs in size or digest, is an error, and nothing of it is left.
///
/// Files that are there already are never touched.
class FileRestorer
{
public:
    FileRestorer(int threads, ToolStore& store, ErrorReport& errors, ProgressBar& progress);

    /// Restores below `folder`, which is made when missing.
    void run(const Manifest& manifest, const std::string& folder);

    /// What came back whole.
    qint64 files() const { return m_Files.load(); }
    qint64 bytes() const { return m_Bytes.load(); }

private:
    void work(const Manifest& manifest, const std::string& folder);

    /// Gives the reason when the file cannot be restored.
    std::string restore(const Manifest::File& file, const std::string& path);

    /// Writes the blocks that `group` lists to an open file.
    std::string writeBlocks(const Manifest::File& file, const ZebDataReference& group,
                            int descriptor);

    const int m_Threads;
    ToolStore& m_Store;
    ErrorReport& m_Errors;
    ProgressBar& m_Progress;
    std::atomic<std::size_t> m_Next;
    std::atomic<qint64> m_DoneBytes;
    std::atomic<qint64> m_Files;
    std::atomic<qint64> m_Bytes;
};
