#pragma once

#include <QtGlobal>

#include <string>

class SummaryText;
struct StoredFiles;

/// What an ingest has come to, for people and for programs.
struct IngestSummary
{
    /// Files of which everything is stored.
    qint64 m_Files = 0;
    qint64 m_SkippedLinks = 0;
    /// What the files hold, as far as it is stored: with everything that occurs more than once.
    qint64 m_Bytes = 0;
    qint64 m_Blocks = 0;
    /// What the store holds of it: everything once.
    qint64 m_DistinctBlocks = 0;
    qint64 m_DistinctBytes = 0;
    /// Whether all was read back and compared.
    bool m_Checked = true;
    qint64 m_ReadBackBytes = 0;
    qint64 m_Differences = 0;
    /// The differences among them.
    qint64 m_Errors = 0;

    double m_SecondsIn = 0;
    double m_SecondsOut = 0;

    qint64 m_BlockSize = 0;
    qint64 m_Memory = 0;
    int m_Threads = 0;
    /// Path of the manifest.
    std::string m_Manifest;

    /// Counts what is in `stored`. Blocks are distinct when their hashes are different objects.
    void count(const StoredFiles& stored);

    /// Not stored, as equal bytes were there already.
    qint64 savedBytes() const { return m_Bytes - m_DistinctBytes; }

    SummaryText shown() const;
};
