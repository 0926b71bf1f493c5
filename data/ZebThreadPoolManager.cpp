#include "data/ZebThreadPoolManager.h"

ZebThreadPoolManager::ZebThreadPoolManager() = default;

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
