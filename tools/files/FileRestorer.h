#pragma once

#include "tools/files/Manifest.h"

#include <QtGlobal>

#include <atomic>
#include <functional>
#include <string>
#include <unordered_set>

class ErrorReport;
class OpenDirectory;
class ProgressBar;
class ToolStore;

/// Restores the files of a manifest from the store, on several threads, each with one file at a
/// time.
///
/// Digests every block, and the list of blocks, and compares the digest with the name, so a
/// restored file is the file that was stored, byte for byte. A file that is not available, or
/// differs in size or digest, is an error, and nothing of it is left. A file gets its name only
/// when it is whole, also when the process is killed.
///
/// Existing files are never touched: one with the same bytes counts as restored, any other one is
/// an error. Links below the directory are not followed.
class FileRestorer
{
public:
    FileRestorer(int threads, ToolStore& store, ErrorReport& errors, ProgressBar& progress);

    /// Restores below `directory`, which is created if missing.
    void run(const Manifest& manifest, const std::string& directory);

    /// What was restored completely.
    qint64 files() const { return m_Files.load(); }
    qint64 bytes() const { return m_Bytes.load(); }

    /// How many files were there already, with the same bytes.
    qint64 present() const { return m_Present.load(); }

private:
    void work(const Manifest& manifest, const std::string& directory, const OpenDirectory& top);

    /// Returns whether it wrote the file; false when that is there with the same bytes.
    bool restore(const Manifest::File& file, const OpenDirectory& top);

    /// Whether the name is that of a file with the bytes of `file`. Throws a ToolError when it is
    /// anything else.
    bool isPresent(const Manifest::File& file, const OpenDirectory& directory,
                   const std::string& name);

    /// The name for the part of a file, which is not that of another file of the manifest.
    std::string partFor(const Manifest::File& file, const std::string& name) const;

    /// Calls `receive` with the blocks that the file's group block lists, in their order, and never
    /// with more bytes than the file has.
    void readBlocks(const Manifest::File& file,
                    const std::function<void(const unsigned char*, qint64)>& receive);

    const int m_Threads;
    ToolStore& m_Store;
    ErrorReport& m_Errors;
    ProgressBar& m_Progress;
    std::atomic<std::size_t> m_Next = 0;
    std::atomic<qint64> m_DoneBytes = 0;
    std::atomic<qint64> m_Files = 0;
    std::atomic<qint64> m_Bytes = 0;
    std::atomic<qint64> m_Present = 0;
    // The paths of the manifest whose names could be those of parts.
    std::unordered_set<std::string> m_PartLike;
};
