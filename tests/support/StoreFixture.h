#pragma once

#include "data/ZebDataReference.h"
#include "hash/ZebHashManager.h"
#include "support/CountedBlock.h"
#include "support/FakeMemory.h"
#include "support/Manager.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"
#include "support/TestBytes.h"

#include <gtest/gtest.h>

#include <atomic>

/// A store on a machine with plenty of memory, and what tests of its blocks do with them. Brings
/// the settings that outlive a clean-up back to their defaults.
class StoreFixture : public testing::Test
{
protected:
    static constexpr int s_Block = 1000;
    static constexpr int s_Megabyte = 1048576;

    explicit StoreFixture(const TemporaryStore::Options& options = {}) : m_Store(options)
    {
        // Nothing is resident yet: this only has the free memory measured.
        manager().flushMemory(true);
    }
    ~StoreFixture() override
    {
        manager().setTargetFreeMemorySize(manager().defaultTargetFreeMemorySize());
        manager().setMaxWritePendingSizeFactor(
            ZebDataBlockManager::defaultMaxWritePendingSizeFactor());
        manager().setRequestPromotionEnabled(false);
    }

    static TemporaryStore::Options withRoots(int roots)
    {
        TemporaryStore::Options options;
        options.m_Roots = roots;
        return options;
    }

    /// One bucket for each root, as FailingDisk requires.
    static TemporaryStore::Options withOneBucket(int roots = 1)
    {
        TemporaryStore::Options options = withRoots(roots);
        options.m_Buckets = 1;
        return options;
    }

    static ZebDataReference add(int sizeBytes, quint32 seed)
    {
        return manager().addBlock(testBytes(sizeBytes, seed), ZebModifyAccessor::Cached, true);
    }

    /// Admits a block of s_Block bytes whose deletion m_Deleted counts.
    ZebDataReference addCounted(quint32 seed)
    {
        const QByteArray bytes = testBytes(s_Block, seed);
        const ZebSmartPointer<ZebDataHash> hash = ZebHashManager::instance().getHash(bytes);
        StoreInside::makeBlockLive(hash.data(), new CountedBlock(bytes, &m_Deleted));
        return ZebDataReference(hash);
    }

    static bool evictEverything() { return manager().flushMemory(true); }

    /// Evicts the next victim only.
    static bool evictOne()
    {
        manager().setTargetFreeMemorySize(FakeMemory::s_Plenty);
        return StoreInside::makeRoom(1);
    }

    static void waitForWriters() { manager().flush(false, ZebDataBlockManager::WriteThreads); }

    /// Writes every cached block and takes all blocks out of memory.
    static void moveToDisk()
    {
        manager().flush(true, ZebDataBlockManager::AllThreads);
        manager().freeAllBlocks();
    }

    FakeMemory m_Memory;
    std::atomic<int> m_Deleted{0};
    TemporaryStore m_Store;
};
