#include "data/ZebThreadPoolManager.h"

#include "data/ZebHashingQueue.h"

ZebThreadPoolManager::ZebThreadPoolManager()
{
    // What is built first goes last: tasks ask this queue, and the pools wait for their tasks.
    ZebHashingQueue::instance();
}

ZebThreadPoolManager::~ZebThreadPoolManager() = default;

ZebThreadPoolManager& ZebThreadPoolManager::instance()
{
    static ZebThreadPoolManager manager;
    return manager;
}

QThreadPool* ZebThreadPoolManager::threadPool(ZebThreadPoolType type)
{
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
