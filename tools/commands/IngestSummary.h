#pragma once

#include <QtGlobal>

#include <string>

class SummaryText;
struct StoredFiles;

/// The result of an ingest, for people and for programs.
struct IngestSummary
{
    /// Files that are stored completely.
    qint64 m_Files = 0;
    qint64 m_SkippedLinks = 0;
    /// The stored bytes and blocks of the files, duplicates included.
    qint64 m_Bytes = 0;
    qint64 m_Blocks = 0;
    /// The same without duplicates.
    qint64 m_DistinctBlocks = 0;
    qint64 m_DistinctBytes = 0;
    /// Blocks whose files were damaged or missing, and are written again.
    qint64 m_Rewritten = 0;
    /// Whether everything was read back and compared.
    bool m_Checked = true;
    qint64 m_ReadBackBytes = 0;
    qint64 m_Differences = 0;
    /// Includes the differences.
    qint64 m_Errors = 0;

    double m_SecondsIn = 0;
    double m_SecondsOut = 0;

    qint64 m_BlockSize = 0;
    qint64 m_Memory = 0;
    int m_Threads = 0;
    /// Path of the manifest, and of the one that it replaced.
    std::string m_Manifest;
    std::string m_PreviousManifest;

    /// Counts what is in `stored`. Blocks are distinct when their hashes are different objects.
    void count(const StoredFiles& stored);

    /// The bytes of duplicates.
    qint64 savedBytes() const { return m_Bytes - m_DistinctBytes; }

    SummaryText shown() const;
};
