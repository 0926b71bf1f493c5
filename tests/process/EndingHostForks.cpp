// The forks of the host: a child has none of the threads of its parent, and the locks that these
// held stay locked in it.

#include "EndingHost.h"

#include <QElapsedTimer>
#include <QSemaphore>
#include <QThread>
#include <QThreadPool>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr qint64 s_DeadlineMs = 10000;
constexpr int s_ForkCount = 30;

// Destroyed in each child that calls exit().
KeptByHost& keptAcrossForks()
{
    static KeptByHost kept;
    return kept;
}

int waitForChild(pid_t child)
{
    QElapsedTimer timer;
    timer.start();
    int status = 0;
    while (::waitpid(child, &status, WNOHANG) == 0) {
        if (timer.elapsed() > s_DeadlineMs) {
            ::kill(child, SIGKILL);
            ::waitpid(child, &status, 0);
            std::fprintf(stderr, "the child hangs\n");
            return 3;
        }
        QThread::msleep(1);
    }
    if (!WIFEXITED(status)) {
        std::fprintf(stderr, "signal %d ended the child\n", WTERMSIG(status));
        return 4;
    }
    return WEXITSTATUS(status);
}

int forkOnce(bool byExit)
{
    const pid_t child = ::fork();
    if (child == -1) {
        std::perror("fork");
        return 5;
    }
    if (child != 0)
        return waitForChild(child);
    if (byExit)
        std::exit(0);
    ::_exit(0);
}

} // namespace

int forkRepeatedly(bool byExit)
{
    int status = 0;
    for (int i = 0; i < s_ForkCount && status == 0; ++i)
        status = forkOnce(byExit);
    return status;
}

int forkAndEnd(bool byExit)
{
    KeptByHost& kept = keptAcrossForks();
    kept.m_Reference = store().addBlock(blob(0));
    kept.m_References.push_back(store().addBlock(blob(1)));
    kept.m_Reference.resolveWork();
    // Loaded again, with a thread of Qt's pool.
    store().freeAllBlocks();
    kept.m_Accessor.emplace(kept.m_Reference.constAccessor());
    return forkOnce(byExit);
}

int forkAfterCleanUp()
{
    store().addBlock(blob(0)).resolveWork();
    store().cleanUp();
    static QSemaphore running;
    static QSemaphore gate;
    QThreadPool::globalInstance()->start([] {
        running.release();
        gate.acquire();
    });
    running.acquire();
    const int status = forkOnce(true);
    gate.release();
    return status;
}

int forkManyTimes(bool byExit)
{
    KeptByHost& kept = keptAcrossForks();
    kept.m_Reference = store().addBlock(blob(0), ZebModifyAccessor::Cached, true);
    kept.m_Accessor.emplace(kept.m_Reference.constAccessor());
    std::atomic<bool> ending{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&ending, &kept, i] {
            for (int number = i; !ending.load(); number += 2) {
                const ZebDataReference copy(kept.m_Reference);
                const ZebConstAccessor accessor = copy.constAccessor();
                const ZebDataReference dropped = store().addBlock(blob(number % 20));
            }
        });
    }
    int status = 0;
    for (int i = 0; i < s_ForkCount && status == 0; ++i) {
        kept.m_References.push_back(store().addBlock(blob(100 + i)));
        status = forkOnce(byExit);
    }
    ending.store(true);
    for (std::thread& thread : threads)
        thread.join();
    return status;
}
