#include "manager/ZebDataBlockLru.h"

#include "support/ZebReadLocker.h"
#include "support/ZebWriteLocker.h"

QAtomicInt m_LruNodeCount;

ZebDataBlockLruNode::ZebDataBlockLruNode(ZebDataHash* hash) : m_Hash(hash)
{
    m_LruNodeCount.fetchAndAddRelaxed(1);
}

ZebDataBlockLruNode::~ZebDataBlockLruNode()
{
    m_LruNodeCount.fetchAndAddRelaxed(-1);
}

ZebDataBlockLru::ZebDataBlockLru() = default;

ZebDataBlockLru::~ZebDataBlockLru()
{
    clear();
}

bool ZebDataBlockLru::contains(ZebDataHash* hash) const
{
    const ZebReadLocker locker(&m_Lock);
    const auto place = m_Items.find(hash);
    return place != m_Items.end() && place->second;
}

int ZebDataBlockLru::count() const
{
    return m_Count.load(std::memory_order_relaxed);
}

void ZebDataBlockLru::add(ZebDataHash* hash)
{
    const ZebWriteLocker locker(&m_Lock);
    std::optional<ZebDataBlockLruNode>& place = m_Items.try_emplace(hash).first->second;
    if (place)
        return;
    link(&place.emplace(hash));
}

void ZebDataBlockLru::touch(ZebDataHash* hash)
{
    const ZebWriteLocker locker(&m_Lock);
    const auto place = m_Items.find(hash);
    if (place == m_Items.end() || !place->second || &*place->second == m_Newest)
        return;
    unlink(&*place->second);
    link(&*place->second);
}

void ZebDataBlockLru::park(ZebDataHash* hash)
{
    const auto place = m_Items.find(hash);
    if (place == m_Items.end() || !place->second)
        return;
    unlink(&*place->second);
    place->second.reset();
}

void ZebDataBlockLru::remove(ZebDataHash* hash)
{
    park(hash);
    m_Items.erase(hash);
}

void ZebDataBlockLru::clear()
{
    m_Newest = nullptr;
    m_Oldest = nullptr;
    m_Count.store(0, std::memory_order_relaxed);
    // Not clear(): it would keep the buckets.
    decltype(m_Items)().swap(m_Items);
}

ZebDataHash* ZebDataBlockLru::oldest() const
{
    return m_Oldest == nullptr ? nullptr : m_Oldest->m_Hash;
}

QReadWriteLock& ZebDataBlockLru::lock() const
{
    return m_Lock;
}

// Links an unlinked node as the newest.
void ZebDataBlockLru::link(ZebDataBlockLruNode* node)
{
    node->m_Newer = nullptr;
    node->m_Older = m_Newest;
    if (m_Newest != nullptr)
        m_Newest->m_Newer = node;
    else
        m_Oldest = node;
    m_Newest = node;
    m_Count.fetch_add(1, std::memory_order_relaxed);
}

void ZebDataBlockLru::unlink(ZebDataBlockLruNode* node)
{
    if (node->m_Newer != nullptr)
        node->m_Newer->m_Older = node->m_Older;
    else
        m_Newest = node->m_Older;
    if (node->m_Older != nullptr)
        node->m_Older->m_Newer = node->m_Newer;
    else
        m_Oldest = node->m_Newer;
    m_Count.fetch_sub(1, std::memory_order_relaxed);
}
