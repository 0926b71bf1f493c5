#pragma once

#include "manager/ZebDataBlockLru.h"
#include "support/PrivateAccess.h"

#include <optional>
#include <unordered_map>
#include <vector>

using LruInsideItems = std::unordered_map<ZebDataHash*, std::optional<ZebDataBlockLruNode>>;

ZEBTDX_ACCESS(LruInsideItemMap, ZebDataBlockLru, LruInsideItems ZebDataBlockLru::*, m_Items)
ZEBTDX_ACCESS(LruInsideNewest, ZebDataBlockLru, ZebDataBlockLruNode* ZebDataBlockLru::*, m_Newest)
ZEBTDX_ACCESS(LruInsideOldest, ZebDataBlockLru, ZebDataBlockLruNode* ZebDataBlockLru::*, m_Oldest)

/// The private members of ZebDataBlockLru. None of the functions takes its lock.
namespace LruInside {

inline const LruInsideItems& items(const ZebDataBlockLru& lru)
{
    return lru.*privateMember(LruInsideItemMap());
}

inline const ZebDataBlockLruNode* newest(const ZebDataBlockLru& lru)
{
    return lru.*privateMember(LruInsideNewest());
}

inline const ZebDataBlockLruNode* oldest(const ZebDataBlockLru& lru)
{
    return lru.*privateMember(LruInsideOldest());
}

/// The hashes in the order of the list.
inline std::vector<ZebDataHash*> newestToOldest(const ZebDataBlockLru& lru)
{
    std::vector<ZebDataHash*> hashes;
    for (const ZebDataBlockLruNode* node = newest(lru); node != nullptr; node = node->m_Older)
        hashes.push_back(node->m_Hash);
    return hashes;
}

/// The same, walked from the other end.
inline std::vector<ZebDataHash*> oldestToNewest(const ZebDataBlockLru& lru)
{
    std::vector<ZebDataHash*> hashes;
    for (const ZebDataBlockLruNode* node = oldest(lru); node != nullptr; node = node->m_Newer)
        hashes.push_back(node->m_Hash);
    return hashes;
}

} // namespace LruInside
