#include "support/ZebThreadStart.h"

#include "data/ZebDataReference.h"
#include "io/ZebDataBlockWriteThread_Pattern2.h"
#include "manager/ZebDataBlockManager.h"
#include "support/Fatal.h"
#include "support/MessageCapture.h"
#include "support/TemporaryStore.h"

#include <QString>
#include <QThread>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <dlfcn.h>
#include <functional>
#include <memory>
#include <pthread.h>
#include <string>

#include <unistd.h>

namespace {

std::atomic<bool> s_SystemRefusesThreads{false};

// The fatal message for a thread of this name.
std::string refused(const std::string& name)
{
    return "Cannot Start Thread '" + name +
           "': the system refused another thread, check the limits on processes and memory. "
           "Aborting";
}

std::unique_ptr<QThread> threadOf(std::function<void()> run)
{
    std::unique_ptr<QThread> thread(QThread::create(std::move(run)));
    thread->setObjectName("a thread");
    return thread;
}

} // namespace

// Replaces the system's function for everything that this program loads.
extern "C" __attribute__((visibility("default"))) int
pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*),
               void* argument)
{
    using Function = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static const auto system = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "pthread_create"));
    return s_SystemRefusesThreads ? EAGAIN : system(thread, attributes, routine, argument);
}

TEST(ZebThreadStart, RunsTheThreadAtThePriority)
{
    QThread::Priority priority = QThread::InheritPriority;
    const auto thread = threadOf([&] { priority = QThread::currentThread()->priority(); });
    ZebThreadStart(thread.get(), QThread::NormalPriority);
    ASSERT_TRUE(thread->wait());
    EXPECT_EQ(priority, QThread::NormalPriority);
}

TEST(ZebThreadStart, AcceptsAThreadThatEndsAtOnce)
{
    for (int round = 0; round < 2000; ++round) {
        const auto thread = threadOf([] {});
        ZebThreadStart(thread.get(), QThread::InheritPriority);
        ASSERT_TRUE(thread->wait());
    }
}

TEST(ZebThreadStartDeathTest, EndsTheProcessWhenTheSystemRefusesAThread)
{
    EXPECT_FATAL(
        {
            const auto thread = threadOf([] {});
            s_SystemRefusesThreads = true;
            ZebThreadStart(thread.get(), QThread::InheritPriority);
        },
        refused("a thread"));
}

TEST(ZebThreadStartDeathTest, EndsTheProcessWhenACompressionWorkerDoesNotStart)
{
    EXPECT_FATAL(
        {
            s_SystemRefusesThreads = true;
            const ZebDataBlockWriteThread_Pattern2 writer(QString(), 1, 2, nullptr);
        },
        refused("TDX Compression"));
}

// Qt only warns when a thread of a pool does not start: it never runs the task, and waits for that
// thread at a regular exit.
TEST(ZebThreadStartDeathTest, AnAdditionNeedsNoThreadOfThePool)
{
    EXPECT_EXIT(
        {
            const TemporaryStore store;
            s_SystemRefusesThreads = true;
            const ZebDataReference reference = ZebDataBlockManager::instance().addBlock("bytes");
            ::_exit(reference.isInMemory() ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(ZebThreadStartDeathTest, EndsTheProcessWhenADiskThreadDoesNotStart)
{
    EXPECT_FATAL(
        {
            s_SystemRefusesThreads = true;
            const TemporaryStore store;
        },
        refused("TDX Write"));
}
