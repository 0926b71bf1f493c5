#include "tools/cache/CacheVerifier.h"

#include "tools/cache/CacheWarnings.h"
#include "tools/cache/VerdictText.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/ProgressBar.h"
#include "tools/terminal/SizeText.h"
#include "tools/terminal/StopRequest.h"
#include "tools/terminal/SummaryText.h"
#include "tools/terminal/TimeText.h"
#include "tools/terminal/Workers.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonObject>

#include <algorithm>
#include <iterator>
#include <numeric>
#include <random>
#include <utility>

#include <sys/stat.h>

namespace {

// What all threads keep between blocks, and what they may take beyond the largest block.
constexpr qint64 s_KeptBytes = 36LL * 1024 * 1024;
constexpr qint64 s_KeptByOne = 6LL * 1024 * 1024;
constexpr qint64 s_SpareBytes = 8LL * 1024 * 1024;

constexpr std::size_t s_Percent = 100;

} // namespace

CacheVerifier::CacheVerifier(const Options& options, const CacheFiles& files, ErrorReport& errors,
                             CacheWarnings& warnings, ProgressBar& progress)
    : m_Options(options),
      m_All(files),
      m_Errors(errors),
      m_Warnings(warnings),
      m_Progress(progress),
      m_Budget(options.m_LargestBlock + s_SpareBytes)
{}

void CacheVerifier::run()
{
    choose();
    const auto total = static_cast<qint64>(m_Chosen.size());
    QElapsedTimer timer;
    timer.start();
    m_Progress.begin("Checking", total, ProgressBar::Unit::Items);
    Workers::run(
        m_Options.m_Threads, [this] { work(); },
        [this, total, &timer] {
            const qint64 done = files();
            const std::string left = TimeText::left(done, total, timer.elapsed());
            m_Progress.show(done, SizeText::print(bytes()) + (left.empty() ? "" : ", " + left));
        });
    m_Progress.end();
    std::sort(m_Damage.begin(), m_Damage.end(),
              [](const Damage& a, const Damage& b) { return a.m_File < b.m_File; });
}

void CacheVerifier::choose()
{
    std::vector<std::size_t> all(m_All.files().size());
    std::iota(all.begin(), all.end(), std::size_t(0));
    const std::size_t wanted =
        (all.size() * static_cast<std::size_t>(m_Options.m_Percent) + s_Percent - 1) / s_Percent;
    if (wanted == all.size()) {
        m_Chosen = std::move(all);
        return;
    }
    m_Chosen.reserve(wanted);
    // A new share each time, so that repeated checks reach all files in the end.
    std::sample(all.begin(), all.end(), std::back_inserter(m_Chosen), wanted,
                std::mt19937_64(std::random_device{}()));
}

void CacheVerifier::work()
{
    const qint64 kept = std::min(s_KeptByOne, s_KeptBytes / m_Options.m_Threads);
    ZebBlockFileChecker checker({m_Options.m_Fast, m_Options.m_LargestBlock, kept}, m_Budget);
    const ZebBlockFileChecker::Receiver receive =
        [this](std::size_t index, const ZebBlockVerdict& verdict, const ZebFileStamp* stamp) {
            take(index, verdict, stamp);
        };
    for (;;) {
        StopRequest::check();
        const std::size_t next = m_Next.fetch_add(1);
        if (next >= m_Chosen.size())
            break;
        const std::size_t index = m_Chosen[next];
        const CacheFiles::File& file = m_All.files()[index];
        if (m_All.isInPlace(file))
            checker.begin(m_All.pathOf(file), file.m_Name, index, receive);
        else
            receive(index, wrongPlace(file), nullptr);
    }
    checker.finish(receive);
}

ZebBlockVerdict CacheVerifier::wrongPlace(const CacheFiles::File& file) const
{
    const ZebBlockPlace place = m_All.placeOf(file);
    if (place.m_Root < 0)
        return {ZebBlockFinding::NoPlace};
    return {ZebBlockFinding::Misplaced, "it belongs in bucket " + std::to_string(place.m_Bucket) +
                                            " of " +
                                            PathText::printable(m_All.rootPath(place.m_Root))};
}

void CacheVerifier::take(std::size_t index, const ZebBlockVerdict& verdict,
                         const ZebFileStamp* stamp)
{
    const CacheFiles::File& file = m_All.files()[index];
    struct stat status = {};
    if (stamp != nullptr) {
        status.st_size = stamp->m_Size;
        status.st_mode = stamp->m_Mode;
    } else {
        // It is not open. Without a status it has no size and no permissions.
        ::lstat(m_All.pathOf(file).c_str(), &status);
    }
    if (CacheWarnings::isWritableByOthers(status.st_mode))
        m_Warnings.addIfWritable(m_All.pathOf(file), status.st_mode);
    if (verdict.m_Finding != ZebBlockFinding::Sound)
        report(index, m_All.pathOf(file), verdict);
    m_Files.fetch_add(1);
    m_Bytes.fetch_add(status.st_size);
}

void CacheVerifier::report(std::size_t index, const std::string& path,
                           const ZebBlockVerdict& verdict)
{
    const std::string line = VerdictText::line(verdict);
    if (verdict.isDamage()) {
        m_Errors.note(path, line);
        const std::lock_guard<std::mutex> locker(m_Mutex);
        m_Damage.push_back({index, verdict});
    } else if (verdict.m_Finding == ZebBlockFinding::NotChecked) {
        m_Errors.add(path, line);
    } else {
        m_Warnings.add(verdict.m_Finding == ZebBlockFinding::Truncated ? CacheWarnings::Truncated
                                                                       : CacheWarnings::Changed,
                       path, line);
    }
}

qint64 CacheVerifier::damaged(ZebBlockFinding kind) const
{
    return std::count_if(m_Damage.begin(), m_Damage.end(), [kind](const Damage& damage) {
        return damage.m_Verdict.m_Finding == kind;
    });
}

void CacheVerifier::addTo(SummaryText& summary) const
{
    summary.addCount(QStringLiteral("files"), "Block files", files(),
                     "of " + SizeText::grouped(static_cast<qint64>(m_All.files().size())));
    summary.addBytes(QStringLiteral("file_bytes"), "Bytes on disk", bytes());
    summary.addCount(QStringLiteral("damaged"), "Damaged", static_cast<qint64>(m_Damage.size()));
    QJsonObject kinds;
    QJsonArray list;
    for (const Damage& damage : m_Damage) {
        const QString key = QString::fromLatin1(VerdictText::key(damage.m_Verdict.m_Finding));
        kinds[key] = kinds[key].toInt() + 1;
        QJsonObject entry;
        const std::string path = m_All.pathOf(m_All.files()[damage.m_File]);
        entry[QStringLiteral("path")] = QFile::decodeName(path.c_str());
        entry[QStringLiteral("kind")] = key;
        entry[QStringLiteral("text")] = QString::fromStdString(VerdictText::line(damage.m_Verdict));
        list.append(entry);
    }
    for (auto kind = kinds.constBegin(); kind != kinds.constEnd(); ++kind) {
        const std::string name = QString(kind.key()).replace('_', ' ').toStdString();
        summary.addCount(QStringLiteral("damaged_") + kind.key(), "  " + name,
                         kind.value().toInt());
    }
    summary.addJson(QStringLiteral("damage"), list);
}
