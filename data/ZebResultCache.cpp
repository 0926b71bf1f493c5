#include "data/ZebResultCache.h"

#include <QReadLocker>
#include <QWriteLocker>

namespace {

constexpr std::memory_order s_Relaxed = std::memory_order_relaxed;

} // namespace

ZebResultCache::ZebResultCache()
    : m_CacheHits(0), m_Enabled(true), m_Lock(QReadWriteLock::Recursive)
{}

ZebResultCache::~ZebResultCache() = default;

bool ZebResultCache::addResult(const QString& key, ZebDataReference& ref)
{
    if (!m_Enabled.load(s_Relaxed))
        return false;
    if (contains(key))
        return true;
    // What is replaced ends with the lock free: dropping it may wait for its job, or end its hash.
    ZebDataReference copy(ref);
    const QWriteLocker locker(&m_Lock);
    const auto entry = m_Results.find(key);
    if (entry != m_Results.end()) {
        // Kept on purpose: a result that has come since the look above is replaced. That is the
        // one case in which the first one does not stay.
        entry->swap(copy);
    } else {
        m_Results.insert(key, copy);
    }
    return true;
}

bool ZebResultCache::contains(const QString& key) const
{
    if (!m_Enabled.load(s_Relaxed))
        return false;
    const QReadLocker locker(&m_Lock);
    return m_Results.contains(key);
}

ZebDataReference ZebResultCache::lookup(const QString& key) const
{
    // No entry ever leaves, so what is there now is there below.
    if (!contains(key))
        return {};
    const QReadLocker locker(&m_Lock);
    m_CacheHits.fetch_add(1, s_Relaxed);
    return m_Results.value(key);
}

int ZebResultCache::resultCount() const
{
    const QReadLocker locker(&m_Lock);
    return m_Results.size();
}

int ZebResultCache::cacheHits() const
{
    return m_CacheHits.load(s_Relaxed);
}

void ZebResultCache::setEnabled(bool enabled)
{
    m_Enabled.store(enabled, s_Relaxed);
}
