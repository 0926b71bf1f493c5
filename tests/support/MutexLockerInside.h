#pragma once

#include "support/PrivateAccess.h"
#include "support/ZebTdxMutex.h"

ZEBTDX_ACCESS(MutexLockerInsideMutex, ZebTdxMutexLocker, ZebTdxMutex* ZebTdxMutexLocker::*, m_Mutex)
ZEBTDX_ACCESS(MutexLockerInsideLocked, ZebTdxMutexLocker, bool ZebTdxMutexLocker::*, m_Locked)

/// The private members of ZebTdxMutexLocker.
namespace MutexLockerInside {

inline ZebTdxMutex*& mutex(ZebTdxMutexLocker& object)
{
    return object.*privateMember(MutexLockerInsideMutex());
}

inline bool& locked(ZebTdxMutexLocker& object)
{
    return object.*privateMember(MutexLockerInsideLocked());
}

} // namespace MutexLockerInside
