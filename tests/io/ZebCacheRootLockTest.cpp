#include "io/ZebCacheRootLock.h"

#include "support/TemporaryTree.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <utility>

#include <sys/wait.h>
#include <unistd.h>

namespace {

class ZebCacheRootLockTest : public ::testing::Test
{
protected:
    ZebCacheRootLock::Result take(ZebCacheRootLock& lock, ZebCacheRootLock::Kind kind,
                                  const std::string& name = "root")
    {
        return lock.tryLock(QString::fromStdString(m_Tree.path(name)), kind);
    }

    void SetUp() override { m_Tree.directory("root"); }

    TemporaryTree m_Tree;
    ZebCacheRootLock m_First;
    ZebCacheRootLock m_Second;
};

} // namespace

TEST_F(ZebCacheRootLockTest, OneExclusiveOrManyShared)
{
    EXPECT_FALSE(m_First.isLocked());
    EXPECT_EQ(take(m_First, ZebCacheRootLock::Shared), ZebCacheRootLock::Locked);
    EXPECT_EQ(take(m_Second, ZebCacheRootLock::Shared), ZebCacheRootLock::Locked);
    EXPECT_EQ(take(m_Second, ZebCacheRootLock::Exclusive), ZebCacheRootLock::InUse);
    EXPECT_FALSE(m_Second.isLocked()) << "the shared one has been released";
    EXPECT_EQ(m_Second.errorText(), "");
    EXPECT_EQ(take(m_First, ZebCacheRootLock::Exclusive), ZebCacheRootLock::Locked);
    EXPECT_EQ(take(m_Second, ZebCacheRootLock::Shared), ZebCacheRootLock::InUse);
    m_First.unlock();
    EXPECT_EQ(take(m_Second, ZebCacheRootLock::Exclusive), ZebCacheRootLock::Locked);
    EXPECT_TRUE(m_Second.isLocked());
}

TEST_F(ZebCacheRootLockTest, AllPathsOfADirectoryAreOneRoot)
{
    m_Tree.link("link", "root");
    ASSERT_EQ(take(m_First, ZebCacheRootLock::Exclusive, "link"), ZebCacheRootLock::Locked);
    EXPECT_EQ(take(m_Second, ZebCacheRootLock::Shared, "root/../root/"), ZebCacheRootLock::InUse);
    EXPECT_TRUE(std::filesystem::is_empty(m_Tree.path("root"))) << "the lock is no file";
}

TEST_F(ZebCacheRootLockTest, WhatIsNoDirectoryFailsWithAReason)
{
    EXPECT_EQ(take(m_First, ZebCacheRootLock::Shared, "missing"), ZebCacheRootLock::Failed);
    EXPECT_EQ(m_First.errorText(), "No such file or directory");
    m_Tree.file("file", "");
    EXPECT_EQ(take(m_First, ZebCacheRootLock::Shared, "file"), ZebCacheRootLock::Failed);
    EXPECT_EQ(m_First.errorText(), "Not a directory");
    EXPECT_EQ(take(m_First, ZebCacheRootLock::Shared), ZebCacheRootLock::Locked);
    EXPECT_EQ(m_First.errorText(), "");
}

TEST_F(ZebCacheRootLockTest, AMovedLockBelongsToItsNewOwner)
{
    ASSERT_EQ(take(m_First, ZebCacheRootLock::Exclusive), ZebCacheRootLock::Locked);
    {
        const ZebCacheRootLock owner(std::move(m_First));
        EXPECT_TRUE(owner.isLocked());
        EXPECT_EQ(take(m_Second, ZebCacheRootLock::Shared), ZebCacheRootLock::InUse);
    }
    EXPECT_EQ(take(m_Second, ZebCacheRootLock::Shared), ZebCacheRootLock::Locked);
}

TEST_F(ZebCacheRootLockTest, AKilledProcessHoldsNothing)
{
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        const char held =
            take(m_First, ZebCacheRootLock::Exclusive) == ZebCacheRootLock::Locked ? '1' : '0';
        if (::write(ready[1], &held, 1) == 1)
            ::pause();
        ::_exit(0);
    }
    char held = 0;
    ASSERT_EQ(::read(ready[0], &held, 1), 1);
    EXPECT_EQ(held, '1');
    EXPECT_EQ(take(m_Second, ZebCacheRootLock::Shared), ZebCacheRootLock::InUse);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    EXPECT_EQ(take(m_Second, ZebCacheRootLock::Shared), ZebCacheRootLock::Locked);
    ::close(ready[0]);
    ::close(ready[1]);
}
