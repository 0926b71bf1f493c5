#include "support/ZebDataDeleteLocker.h"

#include "manager/ZebDataBlockManager.h"

// Not analysed: the attributes in the header say what constructor and destructor do together.
ZebDataDeleteLocker::ZebDataDeleteLocker() ZEBTDX_NO_THREAD_SAFETY_ANALYSIS
{
    ZebDataBlockManager::instance().lockDeletes();
}

ZebDataDeleteLocker::~ZebDataDeleteLocker() ZEBTDX_NO_THREAD_SAFETY_ANALYSIS
{
    ZebDataBlockManager::instance().unlockDeletes();
}

// NOLINTNEXTLINE(bugprone-unhandled-self-assignment): it assigns nothing.
ZebDataDeleteLocker& ZebDataDeleteLocker::operator=(const ZebDataDeleteLocker&)
{
    return *this;
}
