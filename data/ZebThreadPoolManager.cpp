#include "data/ZebThreadPoolManager.h"

#include "data/ZebHashingQueue.h"
#include "hash/SkeinLaneForm.h"

ZebThreadPoolManager::ZebThreadPoolManager()
{
    // What is constructed first is destroyed last. At process exit the pools wait for their tasks,
    // and these use the queue and the table of lane forms.
    ZebHashingQueue::instance();
    ZebSkein::SkeinLaneForm::available();
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
