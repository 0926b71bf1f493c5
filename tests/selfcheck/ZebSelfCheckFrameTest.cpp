#include "selfcheck/ZebSelfCheckFrame.h"

#include "manager/ZebDataBlockManager.h"
#include "selfcheck/ZebSelfCheckStore.h"
#include "support/MessageCapture.h"

#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <string>

namespace {

// The frame's own lines, joined; the store logs others.
std::string frameLines(const MessageCapture& messages)
{
    return messages.debugLines()
        .filter(QRegularExpression(QStringLiteral("^(start|passed)$")))
        .join(' ')
        .toStdString();
}

// A frame on one root of a folder that is removed with it.
class FrameOnDisk : public ZebSelfCheckFrame
{
public:
    FrameOnDisk() : ZebSelfCheckFrame{"start", "passed"}
    {
        m_Roots = ZebSelfCheckStore::rootsIn(m_Folder.path(), 1);
    }

private:
    QTemporaryDir m_Folder;
};

} // namespace

TEST(ZebSelfCheckFrame, SetsTheStoreUpForTheWorkAndClosesItBeforeWhatFollows)
{
    FrameOnDisk frame;
    frame.m_MemoryBytes = 1 << 20;
    frame.m_Buckets = 7;
    frame.m_SubCache = QStringLiteral("Sub");
    const ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    const MessageCapture messages;
    const auto work = [&] {
        EXPECT_EQ(frameLines(messages), "start");
        EXPECT_EQ(manager.cacheRoots(), frame.m_Roots);
        EXPECT_EQ(manager.maxDataCacheSize(), 1 << 20);
        EXPECT_EQ(manager.numBuckets(), 7);
        EXPECT_EQ(manager.subCache(), frame.m_SubCache);
        EXPECT_TRUE(manager.garbageCollecting());
        return true;
    };
    EXPECT_TRUE(frame.run(work, [&] {
        EXPECT_EQ(frameLines(messages), "start");
        EXPECT_FALSE(manager.isInitialized());
        return true;
    }));
    EXPECT_EQ(frameLines(messages), "start passed");
}

TEST(ZebSelfCheckFrame, FailsAtTheFirstStepThatFailsAndClosesTheStore)
{
    const FrameOnDisk frame;
    const ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    const MessageCapture messages;
    bool isReached = false;
    const auto afterwards = [&isReached] {
        isReached = true;
        return false;
    };
    EXPECT_FALSE(frame.run([] { return false; }, afterwards));
    EXPECT_FALSE(isReached);
    EXPECT_FALSE(manager.isInitialized());
    EXPECT_FALSE(frame.run([] { return true; }, afterwards));
    EXPECT_TRUE(isReached);
    EXPECT_EQ(frameLines(messages), "start start");
}

TEST(ZebSelfCheckFrame, CanLeaveTheCollectionOffAndTheSubCacheEmpty)
{
    FrameOnDisk frame;
    frame.m_IsCollecting = false;
    const ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    EXPECT_TRUE(frame.run([&manager] {
        EXPECT_FALSE(manager.garbageCollecting());
        EXPECT_EQ(manager.subCache(), QString());
        return true;
    }));
}
