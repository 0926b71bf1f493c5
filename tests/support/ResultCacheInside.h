#pragma once

#include "data/ZebDataReference.h"
#include "data/ZebResultCache.h"
#include "support/PrivateAccess.h"

#include <QMap>
#include <QReadWriteLock>
#include <QString>

using ResultCacheInsideMap = QMap<QString, ZebDataReference>;

ZEBTDX_ACCESS(ResultCacheInsideLock, ZebResultCache, QReadWriteLock ZebResultCache::*, m_Lock)
ZEBTDX_ACCESS(ResultCacheInsideResults, ZebResultCache, ResultCacheInsideMap ZebResultCache::*,
              m_Results)

/// The private members of ZebResultCache.
namespace ResultCacheInside {

inline QReadWriteLock& lock(const ZebResultCache& cache)
{
    return const_cast<ZebResultCache&>(cache).*privateMember(ResultCacheInsideLock());
}

/// Guarded by lock().
inline ResultCacheInsideMap& results(ZebResultCache& cache)
{
    return cache.*privateMember(ResultCacheInsideResults());
}

} // namespace ResultCacheInside
