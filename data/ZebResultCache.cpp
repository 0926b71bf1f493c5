#include "data/ZebResultCache.h"

#include "support/ZebReadLocker.h"
#include "support/ZebWriteLocker.h"

ZebResultCache::ZebResultCache()
    : m_CacheHits(0), m_Enabled(true), m_Lock(QReadWriteLock::NonRecursive)
{}

ZebResultCache::~ZebResultCache() = default;

bool ZebResultCache::addResult(const QString& key, ZebDataReference& ref)
{
    if (!m_Enabled.load(std::memory_order_relaxed))
        return false;
    if (contains(key))
        return true;
    // Declared before the locker, so that a replaced reference is dropped after the lock is
    // released: dropping it may wait for its job, or be the last release of its hash.
    ZebDataReference copy(ref);
    const ZebWriteLocker locker(&m_Lock);
    const auto entry = m_Results.find(key);
    if (entry != m_Results.end()) {
        // Kept on purpose: a result that another thread has stored since contains() above is
        // replaced. This is the only case in which the first result does not stay.
        entry->swap(copy);
    } else {
        m_Results.insert(key, copy);
    }
    return true;
}

bool ZebResultCache::contains(const QString& key) const
{
    if (!m_Enabled.load(std::memory_order_relaxed))
        return false;
    const ZebReadLocker locker(&m_Lock);
    return m_Results.contains(key);
}

ZebDataReference ZebResultCache::lookup(const QString& key) const
{
    // No entry is ever removed, so what contains() finds is still there below.
    if (!contains(key))
        return {};
    const ZebReadLocker locker(&m_Lock);
    m_CacheHits.fetch_add(1, std::memory_order_relaxed);
    return m_Results.value(key);
}

int ZebResultCache::resultCount() const
{
    const ZebReadLocker locker(&m_Lock);
    return m_Results.size();
}

int ZebResultCache::cacheHits() const
{
    return m_CacheHits.load(std::memory_order_relaxed);
}

void ZebResultCache::setEnabled(bool enabled)
{
    m_Enabled.store(enabled, std::memory_order_relaxed);
}
