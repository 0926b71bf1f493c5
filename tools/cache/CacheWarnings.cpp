#include "tools/cache/CacheWarnings.h"

#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/SummaryText.h"

namespace {

constexpr qint64 s_LinesOfAKind = 10;

} // namespace

CacheWarnings::CacheWarnings(ErrorReport& errors) : m_Errors(errors), m_Counts() {}

void CacheWarnings::add(Kind kind, const std::string& path, const std::string& text)
{
    qint64 count = 0;
    {
        const std::lock_guard<std::mutex> locker(m_Mutex);
        count = ++m_Counts[kind];
    }
    if (count <= s_LinesOfAKind)
        m_Errors.note(PathText::printable(path) + ": " + text);
    if (count == s_LinesOfAKind)
        m_Errors.note("more of that kind are only counted");
}

qint64 CacheWarnings::count(Kind kind) const
{
    const std::lock_guard<std::mutex> locker(m_Mutex);
    return m_Counts[kind];
}

void CacheWarnings::addTo(SummaryText& summary) const
{
    summary.addCount(QStringLiteral("stumps"), "Stumps", count(Stump),
                     "which the store takes for missing");
    summary.addCount(QStringLiteral("foreign"), "Foreign things", count(Foreign),
                     "which the store has not put there");
    summary.addCount(QStringLiteral("links"), "Links not followed", count(Link));
    summary.addCount(QStringLiteral("loose_permissions"), "Loose permissions", count(Loose),
                     "that let others write");
    summary.addCount(QStringLiteral("moving"), "Changed meanwhile", count(Moving));
}
