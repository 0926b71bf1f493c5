#include "tools/cache/CacheWarnings.h"

#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/SummaryText.h"

#include <sys/stat.h>

namespace {

constexpr qint64 s_LinesOfAKind = 10;

} // namespace

CacheWarnings::CacheWarnings(ErrorReport& errors) : m_Errors(errors) {}

void CacheWarnings::add(Kind kind, const std::string& path, const std::string& text)
{
    qint64 count = 0;
    {
        const std::lock_guard<std::mutex> locker(m_Mutex);
        count = ++m_Counts[kind];
    }
    if (count <= s_LinesOfAKind)
        m_Errors.note(path, text);
    if (count == s_LinesOfAKind)
        m_Errors.note("further warnings of this kind are only counted");
}

bool CacheWarnings::isWritableByOthers(unsigned int mode)
{
    return !S_ISLNK(mode) && (mode & (S_IWGRP | S_IWOTH)) != 0;
}

void CacheWarnings::addIfWritable(const std::string& path, unsigned int mode)
{
    if (isWritableByOthers(mode))
        add(Writable, path, "is group- or world-writable; correct that with chmod go-w");
}

qint64 CacheWarnings::count(Kind kind) const
{
    const std::lock_guard<std::mutex> locker(m_Mutex);
    return m_Counts[kind];
}

void CacheWarnings::addTo(SummaryText& summary) const
{
    summary.addCount(QStringLiteral("truncated"), "Truncated files", count(Truncated),
                     "which the store treats as missing");
    summary.addCount(QStringLiteral("unexpected"), "Unexpected files", count(Unexpected),
                     "which the store did not create");
    summary.addCount(QStringLiteral("links"), "Links skipped", count(Link));
    summary.addCount(QStringLiteral("writable"), "Writable by others", count(Writable),
                     "which lets them change blocks");
    summary.addCount(QStringLiteral("changed"), "Changed meanwhile", count(Changed),
                     "by another process");
    summary.addCount(QStringLiteral("unfinished"), "Unfinished ingests", count(Unfinished),
                     "by their marks");
}
