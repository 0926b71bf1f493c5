#pragma once

#include "manager/ZebDataBlockManager.h"
#include "support/FakeMemory.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"
#include "support/TestBytes.h"

#include <gtest/gtest.h>

#include <vector>

/// A store of 1 MiB on one root, on a machine with plenty of memory, for tests of when blocks are
/// evicted and how many.
class PressuredStore : public testing::Test
{
protected:
    static constexpr qint64 s_Megabyte = 1048576;
    static constexpr qint64 s_Terabyte = s_Megabyte * s_Megabyte;
    static constexpr qint64 s_Limit = s_Megabyte;
    static constexpr int s_Block = 1000;

    // Free memory is measured once for about this many bytes requested.
    static constexpr quint64 s_Interval = 134217728;

    PressuredStore() : m_Store(options())
    {
        // Nothing is resident, so nothing is evicted. This measures free memory and leaves the sum
        // of requests one byte short of the next measurement, whatever it was.
        EXPECT_FALSE(manager().flushMemory(true));
    }

    ~PressuredStore() override
    {
        manager().setTargetFreeMemorySize(manager().defaultTargetFreeMemorySize());
    }

    static TemporaryStore::Options options()
    {
        TemporaryStore::Options options;
        options.m_Memory = s_Limit;
        options.m_Buckets = 1;
        return options;
    }

    static ZebDataBlockManager& manager() { return StoreInside::manager(); }

    // Adds blocks of 1000 bytes, which are evictable and written when this returns.
    void addBlocks(int count)
    {
        for (int i = 0; i < count; ++i)
            add(s_Block);
        manager().flush(false, ZebDataBlockManager::WriteThreads);
    }

    const ZebDataReference& add(int size)
    {
        m_References.push_back(
            manager().addBlock(testBytes(size, ++m_Seed), ZebModifyAccessor::Cached, true));
        return m_References.back();
    }

    // Sets the target so that a request of `size` bytes just reaches it, which keeps the request
    // out of the fast check.
    static void leaveExactly(quint64 size)
    {
        manager().setTargetFreeMemorySize(FakeMemory::s_Plenty - static_cast<qint64>(size));
    }

    // Evicts everything, which sets the host's flag and has the next request measured.
    void raiseFlag()
    {
        add(s_Block);
        manager().flush(false, ZebDataBlockManager::WriteThreads);
        EXPECT_TRUE(manager().flushMemory(true));
        EXPECT_TRUE(manager().allFreeBlocksFlushed());
    }

    // How many measurements `action` causes.
    template <typename Action>
    int measuresOf(Action action)
    {
        const int before = FakeMemory::measures(m_Store.messages());
        action();
        return FakeMemory::measures(m_Store.messages()) - before;
    }

    int measuresOfRequest(quint64 size)
    {
        return measuresOf([size] { StoreInside::makeRoom(size); });
    }

    FakeMemory m_Memory;
    TemporaryStore m_Store;
    quint32 m_Seed = 0;
    std::vector<ZebDataReference> m_References;
};
