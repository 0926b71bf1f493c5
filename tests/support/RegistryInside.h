#pragma once

#include "hash/ZebDigestView.h"
#include "hash/ZebHashManager.h"
#include "hash/ZebHashRemovalList.h"
#include "hash/ZebHashShards.h"
#include "support/PrivateAccess.h"
#include "support/ZebTdxMutex.h"

#include <QByteArray>
#include <QWaitCondition>

#include <memory>

using RegistryInsidePointer = ZebSmartPointer<ZebDataHash>;

ZEBTDX_ACCESS(RegistryInsideShards, ZebHashManager,
              const std::unique_ptr<ZebHashShards> ZebHashManager::*, m_Shards)
ZEBTDX_ACCESS(RegistryInsideRemovals, ZebHashManager,
              const std::unique_ptr<ZebHashRemovalList> ZebHashManager::*, m_Removals)
ZEBTDX_ACCESS(RegistryInsideRemovalEnded, ZebHashRemovalList, QWaitCondition ZebHashRemovalList::*,
              m_Ended)
ZEBTDX_ACCESS(RegistryInsideAddHashUnlocked, ZebHashManager,
              RegistryInsidePointer (ZebHashManager::*)(ZebDataHash*), addHash_Unlocked)
ZEBTDX_ACCESS(RegistryInsideDerefRemoveHash, ZebHashManager, bool (ZebHashManager::*)(ZebDataHash*),
              derefRemoveHash)

/// The private members of ZebHashManager. None of the functions takes a lock of its own.
namespace RegistryInside {

inline ZebHashShards& shards(ZebHashManager& object)
{
    return *(object.*privateMember(RegistryInsideShards()));
}

/// The shard of a hash, which has a whole digest.
inline ZebHashShard& shardOf(ZebHashManager& object, const ZebDataHash& hash)
{
    return shards(object).of(shards(object).number({hash.size(), hash.data(), hash.size()}));
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
    ZebHashRemovalList& removals = *(object.*privateMember(RegistryInsideRemovals()));
    return removals.*privateMember(RegistryInsideRemovalEnded());
}

/// The mutex that the process's registry takes for a hash of whole digest.
inline ZebTdxMutex& mutexOf(const ZebDataHash& hash)
{
    return shardOf(ZebHashManager::instance(), hash).m_Mutex;
}

/// The mutex that the process's registry takes for blocks of these bytes.
inline ZebTdxMutex& mutexOf(const QByteArray& bytes)
{
    return mutexOf(ZebDataHash(bytes, ZebDataHash::Hash512));
}

} // namespace RegistryInside
