#pragma once

#include "io/ZebBlockFinding.h"

#include <QtGlobal>

#include <unordered_map>
#include <vector>

class ErrorReport;
class ProgressBar;
class ToolStore;
class ZebDataHash;
class ZebDataReference;
struct StoredFile;
struct StoredFiles;
struct StoredSegment;

/// Makes sure that each block of an ingest has a sound file. The store's writer takes any file of
/// more than 12 bytes for the block, so what an interrupted run left would stay as it is.
///
/// Adds the blocks of damaged and missing files again, with the bytes of the files that are
/// ingested. A damaged file is removed right before that, once those bytes have been read and match
/// its name; a file that could not be checked is never removed. A file with a block that is not
/// sound in the end fails, with an error.
///
/// No other thread may use the store.
class StoredBlockChecker
{
public:
    struct Options
    {
        int m_Threads = 1;
        /// Whether to decompress and digest each block, rather than to compare the header with the
        /// size of the file.
        bool m_Full = false;
    };

    StoredBlockChecker(const Options& options, ToolStore& store, ErrorReport& errors,
                       ProgressBar& progress);

    /// Checks the files of all blocks and lists of blocks. Everything must be written. Evicts all
    /// blocks. Must be called once.
    void run(StoredFiles& stored);

    /// How many blocks had no sound file and were written again.
    qint64 rewritten() const { return m_Rewritten; }

private:
    // What was found in the file of a block.
    using Findings = std::unordered_map<const ZebDataHash*, ZebBlockVerdict>;

    void collect(const StoredFiles& stored);

    /// Checks the files of these blocks. Returns those that are not sound.
    Findings check(const std::vector<ZebDataReference>& blocks, bool full);

    /// Adds the damaged blocks again where the bytes of their files are still the same.
    void add(const StoredFiles& stored, const Findings& damaged);
    void addBlocks(const StoredFiles& stored, const StoredSegment& segment,
                   Findings& missing) const;

    /// Removes the file of a block that is about to be added. Throws a ToolError.
    void remove(const ZebDataReference& block) const;

    void failFiles(StoredFiles& stored, const Findings& left);

    const Options m_Options;
    ToolStore& m_Store;
    ErrorReport& m_Errors;
    ProgressBar& m_Progress;
    // Each block once.
    std::vector<ZebDataReference> m_Blocks;
    qint64 m_LargestBlock = 0;
    qint64 m_Rewritten = 0;
};
