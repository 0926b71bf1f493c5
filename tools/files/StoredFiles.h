#pragma once

#include "data/ZebDataReference.h"
#include "io/ZebFileReader.h"

#include <QtGlobal>

#include <atomic>
#include <cstddef>
#include <deque>
#include <string>
#include <vector>

/// Consecutive blocks of one file: the work that one thread takes at a time, so that a large file
/// keeps all threads busy, and small blocks share one open file.
///
/// Every block has the full size, except for the last one of a file.
struct StoredSegment
{
    /// Index into StoredFiles::m_Files.
    std::size_t m_File = 0;
    qint64 m_Offset = 0;
    /// The size when the file was found. The last segment continues to the file's present end.
    qint64 m_PlannedBytes = 0;
    bool m_Last = false;

    /// The state of the file when the segment was stored.
    ZebFileStamp m_Stamp;
    std::vector<ZebDataReference> m_Blocks;
    qint64 m_Bytes = 0;
    /// Whether all of the segment is stored.
    bool m_Complete = false;
};

struct StoredFile
{
    StoredFile(const std::string& path, const std::string& name, qint64 size)
        : m_Path(path), m_Name(name), m_Size(size)
    {}

    std::string m_Path;
    /// The file's name in a manifest.
    std::string m_Name;
    /// As it was when the file was found.
    qint64 m_Size;
    /// Whether storing the file failed; nothing of it is kept then.
    std::atomic<bool> m_Failed = false;
    /// Whether the file differs from what was stored, or could not be compared.
    std::atomic<bool> m_Different = false;

    /// The block that lists the blocks of the file; null until all of the file is stored.
    ZebDataReference m_Group;
    /// The bytes of the listed blocks.
    qint64 m_StoredBytes = 0;
};

/// Everything that a run of the tool has put into the store.
struct StoredFiles
{
    qint64 m_BlockSize = 0;
    /// Neither list ever moves an element.
    std::deque<StoredFile> m_Files;
    std::deque<StoredSegment> m_Segments;

    /// Drops what was stored of the files that have failed.
    void dropFailed();
};
