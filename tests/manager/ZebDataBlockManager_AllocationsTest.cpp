// The tables of the store when an allocation fails: each operation happens as a whole or not at
// all.

#include "manager/ZebMemoryStatus.h"
#include "manager/ZebSystemMemory.h"
#include "support/FailingAllocations.h"
#include "support/FailingDisk.h"
#include "support/StoreFixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <new>
#include <vector>

namespace {

// Fails each allocation of `operation` on this thread once, until it makes fewer. Calls `check`
// after each failure, with the number of the allocation.
template <typename Operation, typename Check>
void failEachAllocation(Operation operation, Check check)
{
    for (int i = 0;; ++i) {
        qint64 failed = 0;
        try {
            const FailingAllocations failing(FailingAllocations::Here, i);
            operation(i);
            failed = failing.failed();
        } catch (const std::bad_alloc&) {
            failed = 1;
        }
        if (failed == 0) {
            EXPECT_GT(i, 0) << "no allocation was met";
            return;
        }
        check(i);
        if (::testing::Test::HasFatalFailure())
            return;
    }
}

} // namespace

class ZebDataBlockManagerAllocations : public StoreFixture
{
protected:
    static constexpr int s_Blocks = 3;

    ZebDataBlockManagerAllocations() : StoreFixture(withOneBucket()) {}

    void SetUp() override
    {
        if (!FailingAllocations::isAvailable())
            GTEST_SKIP() << "The allocator of a sanitizer cannot be replaced.";
    }

    // Without accessors and uncached blocks, every resident block is evictable.
    static void expectConsistent()
    {
        std::vector<ZebDataHash*> resident;
        qint64 bytes = 0;
        {
            const ZebTdxMutexLocker locker(&StoreInside::deleteMutex());
            resident = StoreInside::lru().residents();
            for (const ZebDataHash* const hash : resident)
                bytes += StoreInside::residentBlock(hash)->size();
        }
        std::vector<ZebDataHash*> evictable = StoreInside::evictable();
        std::sort(resident.begin(), resident.end());
        std::sort(evictable.begin(), evictable.end());
        ASSERT_EQ(resident, evictable);
        ASSERT_EQ(manager().liveBytes(), bytes);
    }
};

TEST_F(ZebDataBlockManagerAllocations, AFailedAdmissionChangesNothing)
{
    std::vector<ZebDataReference> added;
    failEachAllocation(
        [&added](int i) {
            const ZebDataReference reference = add(s_Block, static_cast<quint32>(i));
            // Reached only when the failure did not concern the admission.
            added.push_back(reference);
        },
        [&](int i) {
            SCOPED_TRACE(i);
            ASSERT_NO_FATAL_FAILURE(expectConsistent());
            waitForWriters();
            ASSERT_TRUE(StoreInside::beingWritten().isEmpty());
            const ZebDataReference again = add(s_Block, static_cast<quint32>(i));
            added.push_back(again);
            ASSERT_EQ(StoreInside::residentBlocks(), manager().managedBlocks());
        });
    if (HasFatalFailure())
        return;
    moveToDisk();
    ASSERT_EQ(StoreInside::residentBlocks(), 0);
    for (const ZebDataReference& reference : added) {
        const ZebConstAccessor accessor = reference.constAccessor();
        ASSERT_FALSE(accessor.isNull());
        EXPECT_EQ(accessor.size(), s_Block);
    }
}

TEST_F(ZebDataBlockManagerAllocations, AFailedEvictionKeepsTheBlock)
{
    std::vector<ZebDataReference> added;
    {
        // Each write stays in flight, so eviction leaves the block to its writer.
        const FailingDisk disk(m_Store.roots());
        for (int i = 0; i < s_Blocks; ++i)
            added.push_back(add(s_Block, static_cast<quint32>(i)));
        failEachAllocation([](int) { evictOne(); },
                           [&added](int i) {
                               SCOPED_TRACE(i);
                               ASSERT_NO_FATAL_FAILURE(expectConsistent());
                               ASSERT_EQ(StoreInside::residentBlocks(), s_Blocks);
                           });
        EXPECT_EQ(StoreInside::residentBlocks(), s_Blocks - 1);
        expectConsistent();
    }
    waitForWriters();
    EXPECT_TRUE(StoreInside::toFreeAfterWriting().isEmpty());
    for (int i = 0; i < s_Blocks; ++i)
        EXPECT_TRUE(
            holdsTestBytes(added[static_cast<std::size_t>(i)], s_Block, static_cast<quint32>(i)));
}

TEST_F(ZebDataBlockManagerAllocations, TheEndOfAnAccessorAllocatesNothing)
{
    const ZebDataReference reference = add(s_Block, 1);
    waitForWriters();
    auto accessor = std::make_unique<ZebConstAccessor>(reference.constAccessor());
    auto second = std::make_unique<ZebConstAccessor>(*accessor);
    EXPECT_EQ(FailingAllocations::count([&] { second.reset(); }), 0);
    EXPECT_EQ(FailingAllocations::count([&] { accessor.reset(); }), 0);
    EXPECT_EQ(manager().liveBlocks(), 1);
}

TEST_F(ZebDataBlockManagerAllocations, MeasuringFreeMemoryAllocatesNothing)
{
    // The figures of this machine, with its control groups; those of the fixture log a line.
    ZebMemoryStatus::setSourceRoot(QString());
    EXPECT_EQ(FailingAllocations::count([] {
                  EXPECT_GT(ZebGetTotalPhysicalMemoryBytes(), 0);
                  EXPECT_GT(ZebGetFreePhysicalMemoryBytes(), 0);
              }),
              0);
}
