#pragma once

// What the tests of residency share: the manager's own operations on blocks under plain names, and
// a look at its two tables. For one source file of each program.

#include "data/ZebDataBlock.h"
#include "data/ZebDataReference.h"
#include "hash/ZebDataHash.h"
#include "hash/ZebHashManager.h"
#include "manager/ZebDataBlockLru.h"
#include "manager/ZebDataBlockManager.h"
#include "support/PrivateAccess.h"

#include <QByteArray>
#include <QHash>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

using BlockMap = QHash<ZebDataHash*, ZebDataBlock*>;

ZEBTDX_ACCESS(BlockMapTag, ZebDataBlockManager, BlockMap ZebDataBlockManager::*, m_HashToBlockMap)
ZEBTDX_ACCESS(LruTag, ZebDataBlockManager, ZebDataBlockLru ZebDataBlockManager::*, m_Lru)
ZEBTDX_ACCESS(LruNewestTag, ZebDataBlockLru, ZebDataBlockLruNode* ZebDataBlockLru::*, m_Newest)
ZEBTDX_ACCESS(MakeBlockLiveTag, ZebDataBlockManager,
              void (ZebDataBlockManager::*)(ZebDataHash*, ZebDataBlock*), makeBlockLive)
ZEBTDX_ACCESS(GetDataBlockTag, ZebDataBlockManager,
              ZebDataBlock* (ZebDataBlockManager::*)(ZebDataHash*), getDataBlock)
ZEBTDX_ACCESS(LockBlockTag, ZebDataBlockManager, void (ZebDataBlockManager::*)(ZebDataHash*),
              lockBlock)
ZEBTDX_ACCESS(UnlockBlockTag, ZebDataBlockManager, void (ZebDataBlockManager::*)(ZebDataHash*),
              unlockBlock)
ZEBTDX_ACCESS(BlockUsedTag, ZebDataBlockManager, void (ZebDataBlockManager::*)(ZebDataHash*),
              blockUsed)
ZEBTDX_ACCESS(BlockIsLockedTag, ZebDataBlockManager, bool (ZebDataBlockManager::*)(ZebDataHash*),
              blockIsLocked)

using Hash = ZebSmartPointer<ZebDataHash>;
using Order = std::vector<ZebDataHash*>;

inline ZebDataBlockManager& manager()
{
    return ZebDataBlockManager::instance();
}

inline void makeBlockLive(ZebDataHash* hash, ZebDataBlock* block)
{
    (manager().*privateMember(MakeBlockLiveTag()))(hash, block);
}

inline ZebDataBlock* getDataBlock(ZebDataHash* hash)
{
    return (manager().*privateMember(GetDataBlockTag()))(hash);
}

inline void lockBlock(ZebDataHash* hash)
{
    (manager().*privateMember(LockBlockTag()))(hash);
}

inline void unlockBlock(ZebDataHash* hash)
{
    (manager().*privateMember(UnlockBlockTag()))(hash);
}

inline void blockUsed(ZebDataHash* hash)
{
    (manager().*privateMember(BlockUsedTag()))(hash);
}

inline bool blockIsLocked(ZebDataHash* hash)
{
    return (manager().*privateMember(BlockIsLockedTag()))(hash);
}

inline const BlockMap& blockMap()
{
    return manager().*privateMember(BlockMapTag());
}

/// The evictable blocks, as the list has them.
inline Order newestToOldest()
{
    Order order;
    const ZebDataBlockLru& lru = manager().*privateMember(LruTag());
    for (const auto* node = lru.*privateMember(LruNewestTag()); node != nullptr;
         node = node->m_Older)
        order.push_back(node->m_Hash);
    return order;
}

/// The interned hash of these bytes, with or without a block.
inline Hash hashOf(const QByteArray& bytes)
{
    return ZebHashManager::instance().getHash(bytes);
}

/// An interned do-not-cache hash without a block.
inline Hash dontCacheHash(const QByteArray& identity)
{
    auto* const hash = new ZebDataHash(identity, ZebDataHash::Hash512);
    hash->setDontCache(true);
    return ZebHashManager::instance().addHash(hash);
}

/// Three evictable blocks of 1, 2 and 3 bytes, added in this order.
class ThreeBlocks
{
public:
    ThreeBlocks() : m_One(add("1")), m_Two(add("22")), m_Three(add("333"))
    {
        EXPECT_THAT(newestToOldest(), ::testing::ElementsAre(three(), two(), one()));
    }

    ZebDataHash* one() const { return m_One.hashPtr().data(); }
    ZebDataHash* two() const { return m_Two.hashPtr().data(); }
    ZebDataHash* three() const { return m_Three.hashPtr().data(); }

    ZebDataReference m_One;
    ZebDataReference m_Two;
    ZebDataReference m_Three;

private:
    static ZebDataReference add(const QByteArray& bytes)
    {
        return manager().addBlock(bytes, ZebModifyAccessor::Cached, true);
    }
};
