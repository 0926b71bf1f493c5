#pragma once

#include "hash/ZebDataHash.h"
#include "manager/ZebDataBlockLru.h"
#include "support/PrivateAccess.h"

#include <array>
#include <vector>

using LruInsideEnds = std::array<ZebDataHash*, 2>;

ZEBTDX_ACCESS(LruInsideNewest, ZebDataBlockLru, LruInsideEnds ZebDataBlockLru::*, m_Newest)
ZEBTDX_ACCESS(LruInsideOldest, ZebDataBlockLru, LruInsideEnds ZebDataBlockLru::*, m_Oldest)
ZEBTDX_ACCESS(LruInsideNewer, ZebDataHash, ZebDataHash* ZebDataHash::*, m_Newer)
ZEBTDX_ACCESS(LruInsideOlder, ZebDataHash, ZebDataHash* ZebDataHash::*, m_Older)

/// The private members of ZebDataBlockLru. None of the functions takes a lock.
namespace LruInside {

inline ZebDataHash* newest(const ZebDataBlockLru& lru)
{
    return (lru.*privateMember(LruInsideNewest()))[0];
}

inline ZebDataHash* oldest(const ZebDataBlockLru& lru)
{
    return (lru.*privateMember(LruInsideOldest()))[0];
}

inline ZebDataHash* newer(const ZebDataHash* hash)
{
    return hash->*privateMember(LruInsideNewer());
}

inline ZebDataHash* older(const ZebDataHash* hash)
{
    return hash->*privateMember(LruInsideOlder());
}

/// The hashes in the order of the list, pinned ones that eviction has not met among them.
inline std::vector<ZebDataHash*> newestToOldest(const ZebDataBlockLru& lru)
{
    std::vector<ZebDataHash*> hashes;
    for (ZebDataHash* hash = newest(lru); hash != nullptr; hash = older(hash))
        hashes.push_back(hash);
    return hashes;
}

/// The same, walked from the other end.
inline std::vector<ZebDataHash*> oldestToNewest(const ZebDataBlockLru& lru)
{
    std::vector<ZebDataHash*> hashes;
    for (ZebDataHash* hash = oldest(lru); hash != nullptr; hash = newer(hash))
        hashes.push_back(hash);
    return hashes;
}

} // namespace LruInside
