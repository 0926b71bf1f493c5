#include "data/ZebModifyAccessor.h"

#include "data/ZebDataBlock.h"
#include "data/ZebDataReference.h"
#include "manager/ZebDataBlockManager.h"

#include <utility>

ZebModifyAccessor::ZebModifyAccessor(void* block) : m_Block(static_cast<ZebDataBlock*>(block))
{
    if (m_Block == nullptr)
        return;
    m_Block->m_AccessCount.fetchAndAddOrdered(1);
}

ZebModifyAccessor::ZebModifyAccessor(const ZebModifyAccessor& other)
    : ZebModifyAccessor(static_cast<void*>(other.m_Block))
{}

ZebModifyAccessor::~ZebModifyAccessor()
{
    if (m_Block == nullptr)
        return;
    // A copy may outlive the release of its block to the store.
    const bool isOwned = !m_Block->m_IsAdmitted.load(std::memory_order_relaxed);
    if (m_Block->m_AccessCount.fetchAndAddOrdered(-1) == 1 && isOwned)
        delete m_Block;
}

// NOLINTNEXTLINE(bugprone-unhandled-self-assignment): a raw pointer allows self-assignment.
ZebModifyAccessor& ZebModifyAccessor::operator=(const ZebModifyAccessor& other)
{
    // Kept on purpose: no count changes. The old block is leaked, and the new one has one accessor
    // more than it counts.
    m_Block = other.m_Block;
    return *this;
}

unsigned char* ZebModifyAccessor::data() const
{
    return m_Block == nullptr ? nullptr : m_Block->data();
}

qint64 ZebModifyAccessor::size() const
{
    return m_Block == nullptr ? 0 : m_Block->size();
}

int ZebModifyAccessor::count() const
{
    return m_Block == nullptr ? 0 : m_Block->m_AccessCount.loadRelaxed();
}

bool ZebModifyAccessor::isNull() const
{
    return m_Block == nullptr;
}

ZebDataReference ZebModifyAccessor::release(Caching caching, bool immediate)
{
    if (m_Block == nullptr)
        return {};
    m_Block->m_AccessCount.fetchAndAddOrdered(-1);
    // Kept on purpose: the new count is not checked. The manager owns the block from here on, even
    // if it throws.
    return ZebDataBlockManager::instance().addBlock(std::exchange(m_Block, nullptr), caching,
                                                    immediate);
}
