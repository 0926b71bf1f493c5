#include "data/ZebThreadPoolManager.h"

#include "data/ZebHashingQueue.h"
#include "data/ZebHashingTask.h"
#include "hash/SkeinLaneForm.h"
#include "support/ZebForkWatch.h"
#include "support/ZebPoolExit.h"

ZebThreadPoolManager::ZebThreadPoolManager() : m_MadeIn(ZebForkWatch::generation())
{
    // Static objects that Qt constructs before this one's end are destroyed after it: the exit
    // waits for the tasks of Qt's pool.
    QThreadPool::globalInstance();
    // Built here, where a failed allocation reaches the caller; in a task it would end the process.
    ZebHashingQueue::instance();
    ZebSkein::SkeinLaneForm::available();
}

ZebThreadPoolManager::~ZebThreadPoolManager() = default;

ZebThreadPoolManager& ZebThreadPoolManager::instance()
{
    // Never destroyed: tasks may be queued to the very end of the process. At its exit they are
    // waited for, as a destructor would.
    struct ProcessEnd
    {
        ~ProcessEnd() { m_Manager.waitForTasks(); }
        ZebThreadPoolManager& m_Manager;
    };
    static ZebThreadPoolManager& manager = []() -> ZebThreadPoolManager& {
        static const ProcessEnd end{*new ZebThreadPoolManager};
        return end.m_Manager;
    }();
    return manager;
}

QThreadPool* ZebThreadPoolManager::threadPool(ZebThreadPoolType type)
{
    m_UsedIn.store(ZebForkWatch::generation(), std::memory_order_relaxed);
    switch (type) {
    case PrivateThreadPool:
        return &m_PrivatePool;
    case HashingThreadPool:
        return &m_HashingPool;
    case GlobalThreadPool:
        break;
    }
    return QThreadPool::globalInstance();
}

void ZebThreadPoolManager::waitForTasks()
{
    // The threads that the pools had before a fork are the parent's.
    const int process = ZebForkWatch::generation();
    const bool isUsed = m_UsedIn.load(std::memory_order_relaxed) == process;
    if (ZebForkWatch::isStoreOfParent() || (!isUsed && process != m_MadeIn))
        return;
    // Tasks of the host may queue hashing jobs, so these come last. Qt may have destroyed its pool.
    if (QThreadPool* const global = QThreadPool::globalInstance())
        ZebPoolExit::waitForOthers(*global);
    if (!isUsed)
        return;
    ZebPoolExit::waitForOthers(m_PrivatePool);
    ZebHashingTask::finishAll();
    ZebPoolExit::waitForOthers(m_HashingPool);
}
