#include "manager/ZebDataBlockLru.h"

#include "support/ZebReadLocker.h"
#include "support/ZebWriteLocker.h"

#include <memory>

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
    return m_Items.contains(hash);
}

int ZebDataBlockLru::count() const
{
    const ZebReadLocker locker(&m_Lock);
    return m_Items.size();
}

void ZebDataBlockLru::add(ZebDataHash* hash)
{
    const ZebWriteLocker locker(&m_Lock);
    if (m_Items.contains(hash))
        return;
    auto node = std::make_unique<ZebDataBlockLruNode>(hash);
    m_Items.insert(hash, node.get());
    link(node.release());
}

void ZebDataBlockLru::touch(ZebDataHash* hash)
{
    const ZebWriteLocker locker(&m_Lock);
    ZebDataBlockLruNode* const node = m_Items.value(hash);
    if (node == nullptr || node == m_Newest)
        return;
    unlink(node);
    link(node);
}

void ZebDataBlockLru::remove(ZebDataHash* hash)
{
    ZebDataBlockLruNode* const node = m_Items.take(hash);
    if (node == nullptr)
        return;
    unlink(node);
    delete node;
}

void ZebDataBlockLru::clear()
{
    for (ZebDataBlockLruNode* node = m_Newest; node != nullptr;) {
        ZebDataBlockLruNode* const older = node->m_Older;
        delete node;
        node = older;
    }
    m_Newest = nullptr;
    m_Oldest = nullptr;
    m_Items = QHash<ZebDataHash*, ZebDataBlockLruNode*>();
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
}
