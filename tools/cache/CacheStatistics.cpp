#include "tools/cache/CacheStatistics.h"

#include "io/ZebBlockFile.h"
#include "tools/cache/UnfinishedMark.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/SizeText.h"
#include "tools/terminal/SummaryText.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonObject>

#include <optional>

namespace {

double ratio(const CacheStatistics::Sum& sum)
{
    return sum.m_FileBytes == 0
               ? 0
               : static_cast<double>(sum.m_BlockBytes) / static_cast<double>(sum.m_FileBytes);
}

std::vector<std::string> row(const std::string& name, const CacheStatistics::Sum& sum)
{
    return {name, SizeText::grouped(sum.m_Files), SizeText::grouped(sum.m_FileBytes),
            SizeText::grouped(sum.m_BlockBytes), QString::number(ratio(sum), 'f', 2).toStdString()};
}

QJsonObject objectOf(const CacheStatistics::Sum& sum)
{
    QJsonObject object;
    object[QStringLiteral("files")] = sum.m_Files;
    object[QStringLiteral("file_bytes")] = sum.m_FileBytes;
    object[QStringLiteral("block_bytes")] = sum.m_BlockBytes;
    return object;
}

QString asText(const std::string& bytes)
{
    return QFile::decodeName(bytes.c_str());
}

} // namespace

void CacheStatistics::Sum::add(const Sum& other)
{
    m_Files += other.m_Files;
    m_FileBytes += other.m_FileBytes;
    m_BlockBytes += other.m_BlockBytes;
}

CacheStatistics::CacheStatistics(const std::vector<std::string>& roots, const std::string* subCache,
                                 ErrorReport& errors)
    : m_Roots(roots)
{
    CacheScanner scan(errors);
    if (subCache != nullptr)
        scan.only(*subCache);
    scan.run(roots, [this, &errors](const CacheScanner::File& file) { count(file, errors); });
}

void CacheStatistics::count(const CacheScanner::File& file, ErrorReport& errors)
{
    if (file.m_IsLog)
        return;
    if (file.m_IsMark) {
        ++m_Unfinished;
        errors.note(file.m_Path, UnfinishedMark::textOf(file.m_Path));
        return;
    }
    if (!file.m_IsBlock) {
        ++m_Unexpected;
        return;
    }
    const std::optional<qint64> fileBytes = CacheScanner::fileBytesOf(file, errors);
    if (!fileBytes)
        return;
    if (!ZebBlockFile::isComplete(*fileBytes)) {
        ++m_Unexpected;
        return;
    }
    const std::optional<qint64> blockBytes = CacheScanner::blockBytesOf(file, errors);
    if (!blockBytes)
        return;
    const Sum sum = {1, *fileBytes, *blockBytes};
    m_Sums[{file.m_Root, file.m_SubCache, file.m_Bucket}].add(sum);
    m_Total.add(sum);
}

std::string CacheStatistics::table() const
{
    std::vector<std::vector<std::string>> rows = {
        {"Root and bucket", "files", "bytes on disk", "bytes of blocks", "ratio"}};
    for (std::size_t root = 0; root < m_Roots.size(); ++root) {
        Sum whole;
        std::vector<std::vector<std::string>> buckets;
        for (const auto& [place, sum] : m_Sums) {
            if (std::get<0>(place) != root)
                continue;
            whole.add(sum);
            const std::string& subCache = std::get<1>(place);
            buckets.push_back(
                row("  " + (subCache.empty() ? "" : PathText::printable(subCache) + "/") +
                        std::to_string(std::get<2>(place)),
                    sum));
        }
        rows.push_back(row(PathText::printable(m_Roots[root]), whole));
        rows.insert(rows.end(), buckets.begin(), buckets.end());
    }
    return SummaryText::table(rows);
}

SummaryText CacheStatistics::shown() const
{
    SummaryText text;
    text.addCount(QStringLiteral("files"), "Files", m_Total.m_Files);
    text.addBytes(QStringLiteral("file_bytes"), "Bytes on disk", m_Total.m_FileBytes);
    text.addBytes(QStringLiteral("block_bytes"), "Bytes of blocks", m_Total.m_BlockBytes);
    text.addDecimal(QStringLiteral("compression_ratio"), "Compression ratio", ratio(m_Total));
    text.addCount(QStringLiteral("unexpected"), "Unexpected files", m_Unexpected,
                  "which are not block files, or truncated ones");
    text.addCount(QStringLiteral("unfinished"), "Unfinished ingests", m_Unfinished,
                  "by their marks");
    QJsonArray places;
    for (const auto& [place, sum] : m_Sums) {
        QJsonObject object = objectOf(sum);
        object[QStringLiteral("root")] = asText(m_Roots[std::get<0>(place)]);
        object[QStringLiteral("sub_cache")] = asText(std::get<1>(place));
        object[QStringLiteral("bucket")] = std::get<2>(place);
        places.append(object);
    }
    text.addJson(QStringLiteral("places"), places);
    text.addLine("");
    const std::string lines = table();
    text.addLine(lines.substr(0, lines.size() - 1));
    return text;
}
