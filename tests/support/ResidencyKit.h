#pragma once

#include "data/ZebDataReference.h"
#include "hash/ZebDataHash.h"
#include "hash/ZebHashManager.h"
#include "support/BlockInside.h"
#include "support/Manager.h"
#include "support/StoreInside.h"

#include <QByteArray>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

/// The store's own operations on resident blocks, and hashes and blocks to call them with.
namespace ResidencyKit {

using Hash = ZebSmartPointer<ZebDataHash>;
using Order = std::vector<ZebDataHash*>;

using StoreInside::blockIsLocked;
using StoreInside::blockUsed;
using StoreInside::getDataBlock;
using StoreInside::lockBlock;
using StoreInside::makeBlockLive;
using StoreInside::unlockBlock;

/// The resident block of `hash`, null when there is none. Loads nothing.
inline ZebDataBlock* residentBlock(const Hash& hash)
{
    return StoreInside::blockOf(ZebDataReference(hash));
}

/// The evictable hashes, the most recently used first.
inline Order newestToOldest()
{
    const Order oldestFirst = StoreInside::evictable();
    return {oldestFirst.rbegin(), oldestFirst.rend()};
}

/// The interned hash of these bytes, with or without a block.
inline Hash hashOf(const QByteArray& bytes)
{
    return ZebHashManager::instance().getHash(bytes);
}

/// An interned hash of an uncached block that does not exist.
inline Hash dontCacheHash(const QByteArray& identity)
{
    auto* const hash = new ZebDataHash(identity, ZebDataHash::Hash512);
    hash->setDontCache(true);
    return ZebHashManager::instance().addHash(hash);
}

/// The block, marked as having a file already, so that it is not written.
inline ZebDataBlock* onDisk(ZebDataBlock* block)
{
    BlockInside::cached(*block) = true;
    return block;
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

} // namespace ResidencyKit
