#include "tools/IngestSummary.h"

#include "hash/ZebDataHash.h"
#include "tools/SizeText.h"
#include "tools/StoredFiles.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QString>

#include <algorithm>
#include <cmath>
#include <unordered_set>
#include <vector>

namespace {

constexpr double s_BytesPerMegabyte = 1e6;

double megabytesPerSecond(qint64 bytes, double seconds)
{
    return seconds > 0 ? static_cast<double>(bytes) / s_BytesPerMegabyte / seconds : 0;
}

// Three decimals are all that a clock is good for.
double rounded(double value)
{
    return std::round(value * 1000) / 1000;
}

std::string decimal(double value, int places)
{
    return QString::number(value, 'f', places).toStdString();
}

struct Line
{
    std::string m_Name;
    std::string m_Value;
    std::string m_Note;
};

std::string aligned(const std::vector<Line>& lines)
{
    std::size_t nameWidth = 0;
    std::size_t valueWidth = 0;
    for (const Line& line : lines) {
        nameWidth = std::max(nameWidth, line.m_Name.size());
        valueWidth = std::max(valueWidth, line.m_Value.size());
    }
    std::string text;
    for (const Line& line : lines) {
        text += line.m_Name + std::string(nameWidth - line.m_Name.size() + 2, ' ');
        text += std::string(valueWidth - line.m_Value.size(), ' ') + line.m_Value;
        if (!line.m_Note.empty())
            text += "  " + line.m_Note;
        text += '\n';
    }
    return text;
}

} // namespace

void IngestSummary::count(const StoredFiles& stored)
{
    m_BlockSize = stored.m_BlockSize;
    std::unordered_set<const ZebDataHash*> distinct;
    // Whether nothing of a file is missing is known when its last segment has been seen, since its
    // segments stand in order.
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

std::string IngestSummary::text() const
{
    const auto inParentheses = [](qint64 bytes) {
        return "(" + SizeText::print(bytes) + ")";
    };
    const double savedPercent =
        m_Bytes == 0 ? 0 : 100.0 * static_cast<double>(savedBytes()) / static_cast<double>(m_Bytes);
    std::vector<Line> lines;
    lines.push_back({"Files", SizeText::grouped(m_Files), ""});
    lines.push_back({"Links not followed", SizeText::grouped(m_SkippedLinks), ""});
    lines.push_back({"Bytes", SizeText::grouped(m_Bytes), inParentheses(m_Bytes)});
    lines.push_back(
        {"Blocks", SizeText::grouped(m_Blocks), "of up to " + SizeText::print(m_BlockSize)});
    lines.push_back({"Distinct blocks", SizeText::grouped(m_DistinctBlocks), ""});
    lines.push_back({"Bytes saved", SizeText::grouped(savedBytes()),
                     inParentheses(savedBytes()) + ", " + decimal(savedPercent, 1) + " %"});
    lines.push_back({"MB/s in", decimal(megabytesPerSecond(m_Bytes, m_SecondsIn), 1),
                     "read, hashed and stored in " + decimal(m_SecondsIn, 2) + " s"});
    lines.push_back({"MB/s out", decimal(megabytesPerSecond(m_ReadBackBytes, m_SecondsOut), 1),
                     "read back and compared in " + decimal(m_SecondsOut, 2) + " s"});
    lines.push_back({"Differences", SizeText::grouped(m_Differences), ""});
    lines.push_back({"Errors", SizeText::grouped(m_Errors), ""});
    return aligned(lines) + "(1 MB = 1,000,000 bytes; " + std::to_string(m_Threads) +
           (m_Threads == 1 ? " thread)\n" : " threads)\n");
}

QByteArray IngestSummary::json() const
{
    QJsonObject object;
    object[QStringLiteral("files")] = m_Files;
    object[QStringLiteral("links_skipped")] = m_SkippedLinks;
    object[QStringLiteral("bytes")] = m_Bytes;
    object[QStringLiteral("blocks")] = m_Blocks;
    object[QStringLiteral("distinct_blocks")] = m_DistinctBlocks;
    object[QStringLiteral("distinct_bytes")] = m_DistinctBytes;
    object[QStringLiteral("saved_bytes")] = savedBytes();
    object[QStringLiteral("read_back_bytes")] = m_ReadBackBytes;
    object[QStringLiteral("differences")] = m_Differences;
    object[QStringLiteral("errors")] = m_Errors;
    object[QStringLiteral("seconds_in")] = rounded(m_SecondsIn);
    object[QStringLiteral("seconds_out")] = rounded(m_SecondsOut);
    object[QStringLiteral("mb_per_s_in")] = rounded(megabytesPerSecond(m_Bytes, m_SecondsIn));
    object[QStringLiteral("mb_per_s_out")] =
        rounded(megabytesPerSecond(m_ReadBackBytes, m_SecondsOut));
    object[QStringLiteral("block_size")] = m_BlockSize;
    object[QStringLiteral("memory_limit")] = m_Memory;
    object[QStringLiteral("threads")] = m_Threads;
    return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
}
