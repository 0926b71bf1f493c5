#pragma once

#include "tools/cache/StorePlace.h"

#include <QtGlobal>

#include <string>
#include <vector>

/// The mark of an ingest that has not finished: a file in the sub-cache's directory of each root.
/// It is created before the first block is written, and removed once all blocks and the manifest
/// are on the disk. As long as a mark exists, block files may be incomplete, or contain other bytes
/// after a power loss, so their sizes prove nothing.
///
/// Each command line has a mark of its own: only the same ingest checks all files that an
/// interrupted one may have left.
///
/// The store never looks at a mark: its name is not that of a block, and it lies in no bucket.
class UnfinishedMark
{
public:
    /// The mark of an ingest of these paths. All arguments are part of its name.
    ///
    /// @param manifest the path of its manifest, which reports show
    UnfinishedMark(const StorePlace& place, const std::string& manifest,
                   const std::vector<std::string>& paths, qint64 blockSize);

    /// Creates the mark in all roots and waits until it is on the disk. A mark of an earlier run
    /// stays. Throws a ToolError.
    void set() const;

    /// Removes the mark. Everything that was written must be on the disk. Throws a ToolError.
    void clear() const;

    /// Whether this mark is at that path.
    bool isAt(const std::string& path) const;

    /// The paths of all marks in the cache, of any ingest. Throws a ToolError.
    static std::vector<std::string> find(const StorePlace& place);

    /// Removes the marks at these paths, of any ingest. Every block file must have been checked.
    /// Throws a ToolError.
    static void remove(const std::vector<std::string>& paths);

    /// Whether a file in the directory of a sub-cache is a mark by its name.
    static bool isName(const std::string& name);

    /// What the mark at `path` means and what to do about it, in one line.
    static std::string textOf(const std::string& path);

private:
    std::string directoryOf(const std::string& root) const;
    std::string pathIn(const std::string& root) const;

    const StorePlace m_Place;
    const std::string m_Manifest;
    std::string m_Name;
};
