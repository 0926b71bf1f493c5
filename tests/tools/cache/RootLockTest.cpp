#include "tools/cache/RootLock.h"

#include "support/TemporaryTree.h"
#include "tools/terminal/ToolError.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

class RootLockTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_Tree.directory("a");
        m_Tree.directory("b");
    }

    bool take(RootLock& lock, const std::string& name, RootLock::Use use)
    {
        return take(lock, std::vector<std::string>{m_Tree.path(name)}, use);
    }

    bool take(RootLock& lock, const std::vector<std::string>& roots, RootLock::Use use)
    {
        const auto error = ToolError::of([&] { lock.take(roots, use); });
        if (!error)
            return true;
        EXPECT_EQ(error->code(), EWOULDBLOCK);
        m_Reason = error->what();
        return false;
    }

    TemporaryTree m_Tree;
    std::string m_Reason;
    RootLock m_First;
    RootLock m_Second;
};

} // namespace

TEST_F(RootLockTest, OneExclusiveOrManyShared)
{
    ASSERT_TRUE(take(m_First, "a", RootLock::Use::Reading));
    EXPECT_TRUE(take(m_Second, "a", RootLock::Use::Reading));
    RootLock third;
    EXPECT_FALSE(take(third, "a", RootLock::Use::Alone));
    EXPECT_EQ(m_Reason, "cache root " + m_Tree.path("a") +
                            " is in use by another process; try again when it has ended");
    EXPECT_TRUE(take(third, "b", RootLock::Use::Alone));
    EXPECT_FALSE(take(m_Second, "b", RootLock::Use::Reading));
}

TEST_F(RootLockTest, AllRootsOrNone)
{
    ASSERT_TRUE(take(m_First, "b", RootLock::Use::Alone));
    EXPECT_FALSE(take(m_Second, {m_Tree.path("a"), m_Tree.path("b")}, RootLock::Use::Alone));
    RootLock third;
    EXPECT_TRUE(take(third, "a", RootLock::Use::Alone));
}

TEST_F(RootLockTest, OtherSpellingsAreTheSameRoot)
{
    m_Tree.link("way", "a");
    ASSERT_TRUE(take(m_First, "a", RootLock::Use::Alone));
    EXPECT_FALSE(take(m_Second, "way", RootLock::Use::Alone));
    EXPECT_FALSE(take(m_Second, "b/../a/", RootLock::Use::Alone));
}

TEST_F(RootLockTest, TheRootDoesNotChange)
{
    ASSERT_TRUE(take(m_First, "a", RootLock::Use::Alone));
    EXPECT_TRUE(std::filesystem::is_empty(m_Tree.path("a")));
}

TEST_F(RootLockTest, ARootThatCannotBeLockedIsRefused)
{
    const auto error = ToolError::of([this] {
        m_First.take({m_Tree.path("a"), m_Tree.path("missing")}, RootLock::Use::Alone);
    });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), 0);
    EXPECT_EQ(std::string(error->what()),
              "cache root " + m_Tree.path("missing") +
                  " cannot be locked (No such file or directory), so another process could change "
                  "it meanwhile; move the cache to a file system with locks");
    EXPECT_TRUE(take(m_Second, "a", RootLock::Use::Alone)) << "none is held";
}

TEST_F(RootLockTest, AMovedLockIsHeldByItsNewOwner)
{
    ASSERT_TRUE(take(m_First, "a", RootLock::Use::Alone));
    {
        const RootLock owner(std::move(m_First));
        EXPECT_FALSE(take(m_Second, "a", RootLock::Use::Alone));
    }
    EXPECT_TRUE(take(m_Second, "a", RootLock::Use::Alone));
}

TEST_F(RootLockTest, ConcurrentLockersExcludeEachOther)
{
    std::vector<std::thread> threads;
    std::atomic<int> inside(0);
    std::atomic<int> times(0);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([this, &inside, &times] {
            for (int round = 0; round < 500; ++round) {
                RootLock lock;
                if (ToolError::of([&] { lock.take({m_Tree.path("a")}, RootLock::Use::Alone); }))
                    continue;
                EXPECT_EQ(inside.fetch_add(1), 0);
                times.fetch_add(1);
                inside.fetch_sub(1);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_GT(times.load(), 0);
}
