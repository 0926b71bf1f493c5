#include "selfcheck/ZebSelfCheckFrame.h"

#include "manager/ZebDataBlockManager.h"
#include "selfcheck/ZebSelfCheckStore.h"

bool ZebSelfCheckFrame::run(const Step& work, const Step& afterwards) const
{
    ZebSelfCheck::line("%s", m_StartLine);
    ZebSelfCheckStore store(m_Roots, m_MemoryBytes, m_Buckets);
    if (m_NotReadyLine != nullptr && !store.isReady())
        return ZebSelfCheck::failure("%s", m_NotReadyLine);
    ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    if (!m_SubCache.isEmpty())
        manager.setSubCache(m_SubCache);
    if (m_IsCollecting)
        manager.startGarbageCollection();
    if (!work())
        return false;
    store.close();
    if (afterwards && !afterwards())
        return false;
    ZebSelfCheck::line("%s", m_PassedLine);
    return true;
}
