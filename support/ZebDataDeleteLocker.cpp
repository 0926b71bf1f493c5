#include "support/ZebDataDeleteLocker.h"

#include "manager/ZebDataBlockManager.h"

ZebDataDeleteLocker::ZebDataDeleteLocker()
{
    ZebDataBlockManager::instance().lockDeletes();
}

ZebDataDeleteLocker::~ZebDataDeleteLocker()
{
    ZebDataBlockManager::instance().unlockDeletes();
}

// NOLINTNEXTLINE(bugprone-unhandled-self-assignment): there is nothing to assign.
ZebDataDeleteLocker& ZebDataDeleteLocker::operator=(const ZebDataDeleteLocker&)
{
    return *this;
}
