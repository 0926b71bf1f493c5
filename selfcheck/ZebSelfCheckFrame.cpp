#include "selfcheck/ZebSelfCheckFrame.h"

#include "manager/ZebDataBlockManager.h"

bool ZebSelfCheckFrame::begin(const ZebSelfCheckStore& store) const
{
    if (m_NotReadyLine != nullptr && !store.isReady())
        return ZebSelfCheck::failure("%s", m_NotReadyLine);
    ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    if (!m_SubCache.isEmpty())
        manager.setSubCache(m_SubCache);
    if (m_IsCollecting)
        manager.startGarbageCollection();
    return true;
}
