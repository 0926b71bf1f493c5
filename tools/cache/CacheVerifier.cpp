#include "tools/cache/CacheVerifier.h"

#include "tools/cache/CacheWarnings.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/ProgressBar.h"
#include "tools/terminal/SizeText.h"
#include "tools/terminal/SummaryText.h"
#include "tools/terminal/TimeText.h"
#include "tools/terminal/Workers.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonObject>

#include <algorithm>
#include <random>

#include <sys/stat.h>

namespace {

// What all threads keep between blocks, and what they may take beyond the largest block.
constexpr qint64 s_KeptBytes = 36LL * 1024 * 1024;
constexpr qint64 s_KeptByOne = 6LL * 1024 * 1024;
constexpr qint64 s_SpareBytes = 8LL * 1024 * 1024;

} // namespace

CacheVerifier::CacheVerifier(const Options& options, const CacheFiles& files, ErrorReport& errors,
                             CacheWarnings& remarks, ProgressBar& progress)
    : m_Options(options),
      m_All(files),
      m_Errors(errors),
      m_Remarks(remarks),
      m_Progress(progress),
      m_Budget(options.m_LargestBlock + s_SpareBytes),
      m_Next(0),
      m_Files(0),
      m_Bytes(0)
{}

void CacheVerifier::run()
{
    const bool all = m_Options.m_Percent >= s_All;
    const std::vector<std::size_t> chosen = all ? std::vector<std::size_t>() : choose();
    qint64 files = static_cast<qint64>(m_All.files().size());
    qint64 bytes = m_All.bytes();
    if (!all) {
        files = static_cast<qint64>(chosen.size());
        bytes = 0;
        for (const std::size_t index : chosen)
            bytes += m_All.files()[index].m_Size;
    }
    const bool fast = m_Options.m_Fast;
    const qint64 total = fast ? files : bytes;
    QElapsedTimer timer;
    timer.start();
    m_Progress.begin("Checking", total,
                     fast ? ProgressBar::Unit::Things : ProgressBar::Unit::Bytes);
    Workers::run(
        m_Options.m_Threads, [this, all, &chosen] { work(all ? nullptr : &chosen); },
        [this, fast, total, &timer] {
            const qint64 done = fast ? m_Files.load() : m_Bytes.load();
            const std::string left = TimeText::left(done, total, timer.elapsed());
            const std::string other = fast ? SizeText::print(m_Bytes.load())
                                           : SizeText::grouped(m_Files.load()) + " files";
            m_Progress.show(done, other + (left.empty() ? "" : ", " + left));
        });
    m_Progress.end();
    std::sort(m_Damage.begin(), m_Damage.end(),
              [](const Damage& a, const Damage& b) { return a.m_File < b.m_File; });
}

std::vector<std::size_t> CacheVerifier::choose() const
{
    const std::size_t count = m_All.files().size();
    std::size_t wanted =
        (count * static_cast<std::size_t>(m_Options.m_Percent) + s_All - 1) / s_All;
    std::vector<std::size_t> chosen;
    chosen.reserve(wanted);
    // Another share each time: who checks again and again comes to see all files.
    std::mt19937_64 random(std::random_device{}());
    for (std::size_t i = 0; i < count && wanted > 0; ++i) {
        if (random() % (count - i) >= wanted)
            continue;
        chosen.push_back(i);
        --wanted;
    }
    return chosen;
}

void CacheVerifier::work(Choice choice)
{
    const qint64 kept = std::min(s_KeptByOne, s_KeptBytes / m_Options.m_Threads);
    BlockVerifier verifier({m_Options.m_Fast, m_Options.m_LargestBlock, kept}, m_Budget);
    const BlockVerifier::Receiver receive = [this](std::size_t index, const BlockVerdict& verdict,
                                                   const FileStamp* stamp) {
        take(index, verdict, stamp);
    };
    const std::size_t count = choice == nullptr ? m_All.files().size() : choice->size();
    for (;;) {
        const std::size_t next = m_Next.fetch_add(1);
        if (next >= count)
            break;
        const std::size_t index = choice == nullptr ? next : (*choice)[next];
        const CacheFiles::File& file = m_All.files()[index];
        if (m_All.isInPlace(file))
            verifier.begin(m_All.pathOf(file), file.m_Name, index, receive);
        else
            receive(index, wrongPlace(file), nullptr);
    }
    verifier.finish(receive);
}

BlockVerdict CacheVerifier::wrongPlace(const CacheFiles::File& file) const
{
    const BlockPlace place = m_All.placeOf(file);
    if (place.m_Root < 0)
        return {BlockFinding::NoPlace};
    return {BlockFinding::Misplaced, "it belongs into bucket " + std::to_string(place.m_Bucket) +
                                         " of " +
                                         PathText::printable(m_All.rootPath(place.m_Root))};
}

void CacheVerifier::take(std::size_t index, const BlockVerdict& verdict, const FileStamp* stamp)
{
    const CacheFiles::File& file = m_All.files()[index];
    if (verdict.m_Finding != BlockFinding::Sound)
        report(index, m_All.pathOf(file), verdict);
    m_Files.fetch_add(1);
    m_Bytes.fetch_add(m_All.hasSizes() ? file.m_Size : lookAt(file, stamp));
}

qint64 CacheVerifier::lookAt(const CacheFiles::File& file, const FileStamp* stamp) const
{
    FileStamp seen;
    if (stamp != nullptr) {
        seen = *stamp;
    } else {
        struct stat status = {};
        if (::lstat(m_All.pathOf(file).c_str(), &status) == 0) {
            seen.m_Size = status.st_size;
            seen.m_Mode = status.st_mode;
        }
    }
    if (CacheFiles::isLoose(seen.m_Mode))
        CacheFiles::remarkLoose(m_All.pathOf(file), m_Remarks);
    return seen.m_Size;
}

void CacheVerifier::report(std::size_t index, const std::string& path, const BlockVerdict& verdict)
{
    if (verdict.isDamage()) {
        m_Errors.note(PathText::printable(path) + ": " + verdict.line());
        const std::lock_guard<std::mutex> locker(m_Mutex);
        m_Damage.push_back({index, verdict});
    } else if (verdict.m_Finding == BlockFinding::NotChecked) {
        m_Errors.add(path, verdict.line());
    } else {
        m_Remarks.add(verdict.m_Finding == BlockFinding::Stump ? CacheWarnings::Stump
                                                               : CacheWarnings::Moving,
                      path, verdict.line());
    }
}

qint64 CacheVerifier::damaged(BlockFinding kind) const
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
        const QString key = QString::fromLatin1(BlockVerdict::key(damage.m_Verdict.m_Finding));
        kinds[key] = kinds[key].toInt() + 1;
        QJsonObject one;
        const std::string path = m_All.pathOf(m_All.files()[damage.m_File]);
        one[QStringLiteral("path")] = QFile::decodeName(path.c_str());
        one[QStringLiteral("kind")] = key;
        one[QStringLiteral("text")] = QString::fromStdString(damage.m_Verdict.line());
        list.append(one);
    }
    for (auto kind = kinds.constBegin(); kind != kinds.constEnd(); ++kind) {
        const std::string name = QString(kind.key()).replace('_', ' ').toStdString();
        summary.addCount(QStringLiteral("damaged_") + kind.key(), "  " + name,
                         kind.value().toInt());
    }
    summary.addJson(QStringLiteral("damage"), list);
}
