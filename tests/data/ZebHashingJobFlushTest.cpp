// Hashing jobs during a flush of the store. ZebHashingJobTest tests jobs without one.

#include "data/ZebHashingJob.h"

#include "manager/ZebDataBlockManager.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"
#include "support/TestBytes.h"

#include <gtest/gtest.h>

#include <vector>

using StoreInside::manager;

namespace {

constexpr int s_Block = 20000;

std::vector<ZebDataReference> startJobs(int count)
{
    std::vector<ZebDataReference> references;
    for (int i = 0; i < count; ++i) {
        references.emplace_back(ZebSmartPointer<ZebBlockFuture>(
            new ZebHashingJob(testBytes(s_Block, static_cast<quint32>(i)))));
    }
    return references;
}

} // namespace

TEST(ZebHashingJobFlush, ResolvedBlocksAreInMemoryAtOnceAndNoJobRemains)
{
    const TemporaryStore store;
    const int jobs = ZebBlockFuture::numHashJobs();
    const std::vector<ZebDataReference> references = startJobs(30);
    EXPECT_EQ(ZebBlockFuture::numHashJobs(), jobs + 30);
    for (const ZebDataReference& reference : references)
        EXPECT_TRUE(reference.isInMemory());
    manager().flush(true, ZebDataBlockManager::AllThreads);
    EXPECT_EQ(ZebBlockFuture::numHashJobs(), jobs);
    for (const ZebDataReference& reference : references)
        EXPECT_TRUE(StoreInside::hasFile(reference));
}

TEST(ZebHashingJobFlush, FlushLeavesPendingReferencesPending)
{
    const TemporaryStore store;
    const int jobs = ZebBlockFuture::numHashJobs();
    const std::vector<ZebDataReference> references = startJobs(30);
    manager().flush(true, ZebDataBlockManager::AllThreads);
    // A job lives as long as its reference is pending, whether its work has ended or not.
    EXPECT_EQ(ZebBlockFuture::numHashJobs(), jobs + 30);
    for (const ZebDataReference& reference : references)
        EXPECT_TRUE(reference.hasHashJob());
}
