#pragma once

#include "tools/files/Manifest.h"

#include <QtGlobal>

#include <atomic>
#include <string>

class ErrorReport;
class FileWriter;
class ProgressBar;
class ToolStore;

/// Restores the files of a manifest from the store, on several threads, each with one file at a
/// time.
///
/// Digests every block, and the list of blocks, and compares the digest with the name, so a
/// restored file is the file that was stored, byte for byte. A file that is not available, or
/// differs in size or digest, is an error, and nothing of it is left.
///
/// Existing files are never touched.
class FileRestorer
{
public:
    FileRestorer(int threads, ToolStore& store, ErrorReport& errors, ProgressBar& progress);

    /// Restores below `directory`, which is created if missing.
    void run(const Manifest& manifest, const std::string& directory);

    /// What was restored completely.
    qint64 files() const { return m_Files.load(); }
    qint64 bytes() const { return m_Bytes.load(); }

private:
    void work(const Manifest& manifest, const std::string& directory);
    void restore(const Manifest::File& file, const std::string& path);

    /// Writes the blocks that the file's group block lists.
    void writeBlocks(const Manifest::File& file, FileWriter& target);

    const int m_Threads;
    ToolStore& m_Store;
    ErrorReport& m_Errors;
    ProgressBar& m_Progress;
    std::atomic<std::size_t> m_Next = 0;
    std::atomic<qint64> m_DoneBytes = 0;
    std::atomic<qint64> m_Files = 0;
    std::atomic<qint64> m_Bytes = 0;
};
