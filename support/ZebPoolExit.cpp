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
    // In a pool of one thread tasks may still be queued then; no thread is left for them.
    while (pool.activeThreadCount() > 1)
        QThread::msleep(s_PollMs);
}
