#include "support/ZebPoolExit.h"

#include <QThread>
#include <QThreadPool>

namespace {

constexpr unsigned long s_PollMs = 1;

} // namespace

void ZebPoolExit::waitForOthers(QThreadPool& pool)
{
    if (!QThread::currentThread()->inherits("QThreadPoolThread")) {
        pool.waitForDone(-1);
        return;
    }
    // A queued task waits for a busy thread, so no other task can begin once at most one is busy.
    while (pool.activeThreadCount() > 1)
        QThread::msleep(s_PollMs);
}
