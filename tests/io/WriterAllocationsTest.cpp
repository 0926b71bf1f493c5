// What every form of writer must do when an allocation fails: a write is retried, a fence is
// reached, and a caller gets an exception or its work done.

#include "io/WriterForms.h"

#include "support/CountedBlock.h"
#include "support/FailingAllocations.h"
#include "support/IsFree.h"

#include <QThread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <new>
#include <string>

using ::testing::ElementsAre;

namespace {

template <typename Form>
class WriterAllocations : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!FailingAllocations::isAvailable())
            GTEST_SKIP() << "The allocator of a sanitizer cannot be replaced.";
    }

    // Writes and flushes with `failures` failed allocations on the threads of this name, after the
    // first `skipped`. Returns how many there were.
    static qint64 failOn(const char* thread, qint64 skipped, qint64 failures)
    {
        Form station;
        const std::string names[] = {"stuck at first", std::string(30000, 'x'), "flushed"};
        FileInTheWay obstacle(station.bucket(names[0]));
        std::atomic<bool> hasFailed{false};
        station.onEachFailure([&](int, const QString&) { hasFailed = true; });
        station.start();
        for (const std::string& name : names)
            station.queue(name);
        qint64 failed = 0;
        {
            const FailingAllocations failing(thread, skipped, failures);
            EXPECT_TRUE(station.waitFor([&] { return hasFailed.load(); }));
            obstacle.remove();
            EXPECT_TRUE(station.waitFor(station.beginFlush(names[2])));
            EXPECT_TRUE(station.drain());
            failed = failing.failed();
        }
        for (const std::string& name : names) {
            EXPECT_TRUE(station.block(name).cached());
            EXPECT_EQ(BlockFiles::read(station.file(name)),
                      BlockFiles::fileOf(QByteArray::fromStdString(name)));
            EXPECT_EQ(station.hash(name)->refCount(), 1);
        }
        EXPECT_EQ(station.writer().requestsHandled(), 3);
        EXPECT_EQ(station.writer().bytesInQueue(), 0);
        EXPECT_EQ(station.writer().requestsInProgress(), 0);
        EXPECT_EQ(station.fencesReached(), QSet<int>());
        EXPECT_EQ(station.freeFences().size(), station.nextFence());
        return failed;
    }

    // Meets every allocation of the threads of this name, a few in a row.
    static void failOnEach(const char* thread)
    {
        constexpr int inARow = 4;
        int met = 0;
        for (qint64 skipped = 0; !::testing::Test::HasFailure(); skipped += inARow) {
            const qint64 failed = failOn(thread, skipped, inARow);
            if (failed == 0)
                break;
            met += static_cast<int>(failed);
        }
        EXPECT_GT(met, 0);
    }
};
TYPED_TEST_SUITE(WriterAllocations, WriterForms, WriterFormNames);

} // namespace

TYPED_TEST(WriterAllocations, NoFailureOnTheWritersThreadLosesARequestOrAFence)
{
    TestFixture::failOnEach("TDX Write");
}

TYPED_TEST(WriterAllocations, NoFailureOnAWorkersThreadLosesARequest)
{
    if (std::string(TypeParam::s_ClassName).find("Pattern2") != std::string::npos)
        TestFixture::failOnEach("TDX Compression");
}

TYPED_TEST(WriterAllocations, ABlockThatCannotBeQueuedStaysTheCallers)
{
    TypeParam station;
    const auto hash = station.hash("not queued");
    std::atomic<int> deleted{0};
    auto* const block = new CountedBlock(QByteArray("not queued"), &deleted);
    // Even the block of a postponed deletion is not touched.
    StoreInside::toFreeAfterWritingSet().insert(block);
    int refused = 0;
    for (;; ++refused) {
        qint64 failed = 0;
        try {
            const FailingAllocations failing(FailingAllocations::Here, refused);
            station.writer().writeBlock(ZebDataBlockManager::PreloadNormal, hash, block,
                                        refused % 2 == 0);
            failed = failing.failed();
        } catch (const std::bad_alloc&) {
            failed = 1;
        }
        if (failed == 0)
            break;
        ASSERT_EQ(deleted, 0);
        ASSERT_TRUE(station.list().empty());
        ASSERT_EQ(station.writer().bytesInQueue(), 0);
        ASSERT_EQ(hash->refCount(), 2) << "the station's and this test's";
    }
    EXPECT_GT(refused, 1);
    EXPECT_THAT(station.list(), ElementsAre("1 not queued"));
    StoreInside::toFreeAfterWritingSet().clear();
    station.start();
    EXPECT_TRUE(station.drain());
    EXPECT_EQ(deleted, refused % 2 == 0 ? 1 : 0);
    if (deleted == 0)
        delete block;
}

TYPED_TEST(WriterAllocations, AFlushThatCannotQueueItsFenceLeavesNothingBehind)
{
    TypeParam station;
    station.queue("first", 2);
    station.queue("second", 2);
    const auto hash = station.hash("second");
    // The flush has queued its fence when it waits, so it has met all of its allocations.
    for (int met = 0;; ++met) {
        bool hasThrown = false;
        const auto flush = std::make_unique<BlockedThread>([&] {
            // Qt crashes when it cannot allocate its record of a thread.
            QThread::currentThread();
            try {
                const FailingAllocations failing(FailingAllocations::Here, met);
                station.writer().flush(hash);
            } catch (const std::bad_alloc&) {
                hasThrown = true;
            }
        });
        if (station.waitsForFence(flush)) {
            EXPECT_GT(met, 1);
            EXPECT_THAT(station.list(), ElementsAre("0 second", "0 fence 0", "2 first"));
            station.start();
            EXPECT_TRUE(station.waitFor(flush));
            break;
        }
        ASSERT_TRUE(flush->ends());
        ASSERT_TRUE(hasThrown);
        ASSERT_EQ(station.list().size(), 2U);
        ASSERT_EQ(station.freeFences().size(), station.nextFence());
        ASSERT_TRUE(isFree(StoreInside::deleteLock()));
    }
    EXPECT_EQ(station.nextFence(), 1);
}
