#pragma once

#include "hash/ZebHashManager.h"
#include "support/PrivateAccess.h"

#include <QMutex>
#include <QSet>
#include <QWaitCondition>

using RegistryInsidePointer = ZebSmartPointer<ZebDataHash>;

ZEBTDX_ACCESS(RegistryInsideHashes, ZebHashManager, QSet<ZebHashHandle> ZebHashManager::*, m_Hashes)
ZEBTDX_ACCESS(RegistryInsideMutex, ZebHashManager, QMutex ZebHashManager::*, m_Mutex)
ZEBTDX_ACCESS(RegistryInsideRemovalEnded, ZebHashManager, QWaitCondition ZebHashManager::*,
              m_RemovalEnded)
ZEBTDX_ACCESS(RegistryInsideRequests, ZebHashManager, int ZebHashManager::*, m_Requests)
ZEBTDX_ACCESS(RegistryInsideCacheHits, ZebHashManager, int ZebHashManager::*, m_CacheHits)
ZEBTDX_ACCESS(RegistryInsideCacheMisses, ZebHashManager, int ZebHashManager::*, m_CacheMisses)
ZEBTDX_ACCESS(RegistryInsideRemoves, ZebHashManager, int ZebHashManager::*, m_Removes)
ZEBTDX_ACCESS(RegistryInsideAddHashUnlocked, ZebHashManager,
              RegistryInsidePointer (ZebHashManager::*)(ZebDataHash*), addHash_Unlocked)
ZEBTDX_ACCESS(RegistryInsideDerefRemoveHash, ZebHashManager, bool (ZebHashManager::*)(ZebDataHash*),
              derefRemoveHash)

/// The private members of ZebHashManager. None of the functions takes a lock of its own.
namespace RegistryInside {

inline QSet<ZebHashHandle>& hashes(ZebHashManager& object)
{
    return object.*privateMember(RegistryInsideHashes());
}

inline QMutex& mutex(ZebHashManager& object)
{
    return object.*privateMember(RegistryInsideMutex());
}

inline int& requests(ZebHashManager& object)
{
    return object.*privateMember(RegistryInsideRequests());
}

inline int& cacheHits(ZebHashManager& object)
{
    return object.*privateMember(RegistryInsideCacheHits());
}

inline int& cacheMisses(ZebHashManager& object)
{
    return object.*privateMember(RegistryInsideCacheMisses());
}

inline int& removes(ZebHashManager& object)
{
    return object.*privateMember(RegistryInsideRemoves());
}

inline RegistryInsidePointer addHashUnlocked(ZebHashManager& object, ZebDataHash* hash)
{
    return (object.*privateMember(RegistryInsideAddHashUnlocked()))(hash);
}

inline bool derefRemoveHash(ZebHashManager& object, ZebDataHash* hash)
{
    return (object.*privateMember(RegistryInsideDerefRemoveHash()))(hash);
}

/// At which a thread waits for the removal of a file.
inline QWaitCondition& removalEnded(ZebHashManager& object)
{
    return object.*privateMember(RegistryInsideRemovalEnded());
}

/// The mutex of the process's registry.
inline QMutex& mutex()
{
    return mutex(ZebHashManager::instance());
}

} // namespace RegistryInside
