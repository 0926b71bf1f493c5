#include "support/ZebDeleteMutexLocker.h"

#include "manager/ZebDataBlockManager.h"

// Not analysed: the attributes in the header say what constructor and destructor do together.
ZebDeleteMutexLocker::ZebDeleteMutexLocker() ZEBTDX_NO_THREAD_SAFETY_ANALYSIS
{
    ZebDataBlockManager::instance().deleteMutex().lock();
}

ZebDeleteMutexLocker::~ZebDeleteMutexLocker() ZEBTDX_NO_THREAD_SAFETY_ANALYSIS
{
    ZebDataBlockManager::instance().deleteMutex().unlock();
}
