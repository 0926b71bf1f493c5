#include "tools/commands/IngestSummary.h"

#include "hash/ZebDataHash.h"
#include "tools/files/StoredFiles.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/SizeText.h"
#include "tools/terminal/SummaryText.h"

#include <QFile>
#include <QString>

#include <algorithm>
#include <unordered_set>
#include <vector>

void IngestSummary::count(const StoredFiles& stored)
{
    m_BlockSize = stored.m_BlockSize;
    std::unordered_set<const ZebDataHash*> distinct;
    // The segments of a file are in order, so its last segment completes it.
    std::vector<bool> whole(stored.m_Files.size(), true);
    std::vector<bool> ended(stored.m_Files.size(), false);
    for (const StoredSegment& segment : stored.m_Segments) {
        whole[segment.m_File] = whole[segment.m_File] && segment.m_Complete;
        ended[segment.m_File] = ended[segment.m_File] || segment.m_Last;
        m_Bytes += segment.m_Bytes;
        m_Blocks += static_cast<qint64>(segment.m_Blocks.size());
        qint64 left = segment.m_Bytes;
        for (const ZebDataReference& reference : segment.m_Blocks) {
            const qint64 size = std::min(m_BlockSize, left);
            left -= size;
            if (distinct.insert(reference.hashPtr().data()).second)
                m_DistinctBytes += size;
        }
    }
    m_DistinctBlocks = static_cast<qint64>(distinct.size());
    for (std::size_t i = 0; i < stored.m_Files.size(); ++i) {
        if (whole[i] && ended[i])
            ++m_Files;
    }
}

SummaryText IngestSummary::shown() const
{
    const double percent = 100;
    const double savedPercent =
        m_Bytes == 0 ? 0
                     : percent * static_cast<double>(savedBytes()) / static_cast<double>(m_Bytes);
    SummaryText text;
    text.addCount(QStringLiteral("files"), "Files", m_Files);
    text.addCount(QStringLiteral("links_skipped"), "Links skipped", m_SkippedLinks);
    text.addBytes(QStringLiteral("bytes"), "Bytes", m_Bytes);
    text.addCount(QStringLiteral("blocks"), "Blocks", m_Blocks,
                  "of up to " + SizeText::print(m_BlockSize));
    text.addCount(QStringLiteral("distinct_blocks"), "Distinct blocks", m_DistinctBlocks);
    text.addCount(QStringLiteral("saved_bytes"), "Bytes saved", savedBytes(),
                  "(" + SizeText::print(savedBytes()) + "), " +
                      QString::number(savedPercent, 'f', 1).toStdString() + " %");
    text.addJson(QStringLiteral("rewritten_blocks"), m_Rewritten);
    text.addRate(QStringLiteral("_in"), "MB/s stored", m_Bytes, m_SecondsIn);
    if (m_Checked) {
        text.addRate(QStringLiteral("_out"), "MB/s compared", m_ReadBackBytes, m_SecondsOut);
        text.addCount(QStringLiteral("differences"), "Differences", m_Differences);
        text.addJson(QStringLiteral("read_back_bytes"), m_ReadBackBytes);
    }
    text.addCount(QStringLiteral("errors"), "Errors", m_Errors);
    text.addLine("(1 MB = 1,000,000 bytes; " + std::to_string(m_Threads) +
                 (m_Threads == 1 ? " thread)" : " threads)"));
    if (!m_Manifest.empty())
        text.addLine("Manifest: " + PathText::printable(m_Manifest));
    if (!m_PreviousManifest.empty())
        text.addLine("Previous manifest: " + PathText::printable(m_PreviousManifest));
    text.addJson(QStringLiteral("distinct_bytes"), m_DistinctBytes);
    text.addJson(QStringLiteral("block_size"), m_BlockSize);
    text.addJson(QStringLiteral("memory_limit"), m_Memory);
    text.addJson(QStringLiteral("threads"), m_Threads);
    text.addJson(QStringLiteral("manifest"), QFile::decodeName(m_Manifest.c_str()));
    text.addJson(QStringLiteral("previous_manifest"),
                 QFile::decodeName(m_PreviousManifest.c_str()));
    return text;
}
