// A collector's pass that meets a host: a change of the sub-cache, and bytes that are added again
// while their orphaned file is removed.

#include "support/CollectorStation.h"
#include "support/SequencePoints.h"

#include <QFile>

#include <gtest/gtest.h>

#include <atomic>
#include <dlfcn.h>
#include <functional>
#include <memory>

namespace {

// What happens between the decision that a file is orphaned and its removal.
std::function<void()> s_BeforeRemoval;

class ZebGarbageCollectorThreadRace : public CollectorStation
{
protected:
    ~ZebGarbageCollectorThreadRace() override { s_BeforeRemoval = nullptr; }

    // A block whose file is complete and which no reference holds any more.
    QString orphan(const QByteArray& bytes)
    {
        ZebDataReference reference = manager().addBlock(bytes, ZebModifyAccessor::Cached, true);
        manager().flush();
        const QString file = fileOf(reference);
        EXPECT_TRUE(QFile::exists(file));
        return file;
    }

    // A collector of the store's root, which the store does not have.
    ZebGarbageCollectorThread m_SecondCollector{m_Store.roots().first(), 10, nullptr};
};

} // namespace

// Replaces the system's function.
extern "C" int unlinkat(int directory, const char* name, int flags) noexcept
{
    if (s_BeforeRemoval)
        s_BeforeRemoval();
    using Function = int (*)(int, const char*, int);
    static const auto system = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "unlinkat"));
    return system(directory, name, flags);
}

// A change of the sub-cache

TEST_F(ZebGarbageCollectorThreadRace, APassThatReadTheOldSubCacheIsSkipped)
{
    const QString old = writeDead("0");
    freeABlock();
    std::unique_ptr<BlockedThread> passing;
    {
        // Held, so that the pass stops between the name of the sub-cache and its bracket.
        const QMutexLocker bracket(&StoreInside::collectionMutex());
        passing =
            std::make_unique<BlockedThread>([this] { m_Collector.collect(nullptr, nullptr); });
        ASSERT_TRUE(passing->waitsFor(StoreInside::collectionMutex()));
        setSizeFound(s_UnlikelySize);
        manager().setSubCache("Other");
        // What startGarbageCollection() does with this mutex.
        StoreInside::collecting() = true;
    }
    EXPECT_TRUE(passing->ends());
    EXPECT_TRUE(QFile::exists(old)) << "it lies in a sub-cache that the host has left";
    EXPECT_EQ(StoreInside::passesRunning(), 0);
    EXPECT_EQ(sizeFound(), s_UnlikelySize);

    const QString present = m_Root.path() + "/Other/0/" + deadName(2);
    BlockFiles::write(present, "x");
    m_Collector.collect(nullptr, nullptr);
    EXPECT_FALSE(QFile::exists(present)) << "the skipped pass is still due";
    EXPECT_TRUE(QFile::exists(old));
}

// Bytes that are added again

TEST_F(ZebGarbageCollectorThreadRace, BytesThatAreAddedDuringTheRemovalAreWrittenAgain)
{
    const QByteArray bytes = testBytes(5000, 1);
    const QString file = orphan(bytes);
    SequencePoints points;
    s_BeforeRemoval = [&points] {
        points.reachedThenWait("decided", "added");
    };
    manager().startGarbageCollection();
    BlockedThread passing([this] { m_SecondCollector.collect(nullptr, nullptr); });
    ASSERT_TRUE(points.wait("decided"));
    ZebDataReference reference;
    BlockedThread adding([&] {
        reference = manager().addBlock(bytes, ZebModifyAccessor::Cached, true);
        manager().flush(false, ZebDataBlockManager::WriteThreads);
    });
    // Either it waits for the removal, or the block is written before it.
    EXPECT_TRUE(adding.standsStill());
    points.reached("added");
    EXPECT_TRUE(passing.ends());
    EXPECT_TRUE(adding.ends());
    EXPECT_TRUE(QFile::exists(file));
    manager().freeAllBlocks();
    EXPECT_TRUE(holdsTestBytes(reference, 5000, 1));
}
