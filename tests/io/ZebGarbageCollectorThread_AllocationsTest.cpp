// A collector's pass when an allocation fails.

#include "support/CollectorStation.h"
#include "support/FailingAllocations.h"

#include <QFile>

#include <gtest/gtest.h>

#include <new>

namespace {

class ZebGarbageCollectorThreadAllocations : public CollectorStation
{
protected:
    void SetUp() override
    {
        if (!FailingAllocations::isAvailable())
            GTEST_SKIP() << "The allocator of a sanitizer cannot be replaced.";
    }
};

} // namespace

TEST_F(ZebGarbageCollectorThreadAllocations, APassThatFailsRemovesNoLiveFileAndLeavesNoMark)
{
    const QString live = writeLive("0", 10);
    manager().startGarbageCollection();
    int thrown = 0;
    for (int i = 0;; ++i) {
        SCOPED_TRACE(i);
        const QString dead = write("0/" + deadName(i));
        freeABlock();
        qint64 failed = 0;
        try {
            const FailingAllocations failing(FailingAllocations::Here, i);
            m_Collector.collect(nullptr, nullptr);
            failed = failing.failed();
        } catch (const std::bad_alloc&) {
            ++thrown;
            failed = 1;
        }
        EXPECT_TRUE(waitUntil([] { return StoreInside::passesRunning() == 0; }));
        EXPECT_TRUE(QFile::exists(live));
        // Would wait for a mark that was left.
        EXPECT_FALSE(ZebHashManager::instance().getHash(deadName(i)).isNull());
        m_Collector.setSubCache("the lock is free");
        pass();
        ASSERT_FALSE(QFile::exists(dead));
        EXPECT_EQ(sizeFound(), 10);
        if (failed == 0)
            break;
    }
    EXPECT_GT(thrown, 5);
}
