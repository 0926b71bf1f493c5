#pragma once

#include "data/ZebDataReference.h"
#include "tools/files/FileReader.h"

#include <QtGlobal>

#include <atomic>
#include <cstddef>
#include <deque>
#include <string>
#include <vector>

/// A run of consecutive blocks of one file: the piece of work that one thread takes at a time, so
/// that a large file keeps all threads busy, and small blocks do not cost an opened file each.
///
/// Every block has the full size, but for the last one of a file.
struct StoredSegment
{
    /// Index into StoredFiles::m_Files.
    std::size_t m_File = 0;
    qint64 m_Offset = 0;
    /// What the segment was meant to hold. The last one of a file goes on to the file's end, which
    /// may have moved since.
    qint64 m_PlannedBytes = 0;
    bool m_Last = false;

    /// The state of the file when the segment was stored.
    FileStamp m_Stamp;
    std::vector<ZebDataReference> m_Blocks;
    qint64 m_Bytes = 0;
    /// Whether nothing of the segment is missing.
    bool m_Complete = false;
};

struct StoredFile
{
    explicit StoredFile(const std::string& path, const std::string& name, qint64 size)
        : m_Path(path), m_Name(name), m_Size(size)
    {}

    std::string m_Path;
    /// Under which the file is kept in a manifest.
    std::string m_Name;
    /// As it was when the file was found.
    qint64 m_Size;
    /// Whether the file could not be stored; nothing of it is kept then.
    std::atomic<bool> m_Failed = false;
    /// Whether the file was found to differ from what was stored, or could not be compared.
    std::atomic<bool> m_Different = false;

    /// The block that lists the blocks of the file, and what they hold together. Null until all of
    /// the file is stored.
    ZebDataReference m_Group;
    qint64 m_StoredBytes = 0;
};

/// Everything that a run of the tool has put into the store.
struct StoredFiles
{
    qint64 m_BlockSize = 0;
    /// Neither list ever moves an element.
    std::deque<StoredFile> m_Files;
    std::deque<StoredSegment> m_Segments;
};
