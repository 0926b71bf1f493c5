#pragma once

#include "bench/BenchStore.h"
#include "manager/ZebDataBlockManager.h"

#include <QtGlobal>

/// A store whose only limit is that of its resident bytes: it ignores the machine's free memory.
///
/// Thread safety: as BenchStore.
class FixedLimitStore
{
public:
    explicit FixedLimitStore(qint64 limitBytes, int buckets = s_ManyBuckets)
        : m_Store(limitBytes, buckets)
    {}

private:
    // So many that no directory grows large.
    static constexpr int s_ManyBuckets = 1000;

    // Restores the target after the store is cleaned up.
    struct IgnoredFreeMemory
    {
        IgnoredFreeMemory() : m_Before(BenchStore::manager().targetFreeMemorySize())
        {
            BenchStore::manager().setTargetFreeMemorySize(0);
        }
        ~IgnoredFreeMemory() { BenchStore::manager().setTargetFreeMemorySize(m_Before); }
        IgnoredFreeMemory(const IgnoredFreeMemory&) = delete;
        IgnoredFreeMemory& operator=(const IgnoredFreeMemory&) = delete;
        qint64 m_Before;
    };

    IgnoredFreeMemory m_FreeMemory;
    BenchStore m_Store;
};
