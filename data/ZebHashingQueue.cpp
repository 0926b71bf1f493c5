#include "data/ZebHashingQueue.h"

#include "data/ZebHashingTask.h"
#include "support/ZebMutexLocker.h"

#include <algorithm>

ZebHashingQueue& ZebHashingQueue::instance()
{
    static ZebHashingQueue* const queue = new ZebHashingQueue;
    return *queue;
}

void ZebHashingQueue::add(const TaskPointer& task)
{
    const ZebMutexLocker locker(&m_Mutex);
    task->m_Place = m_Waiting.insert(m_Waiting.end(), task);
}

bool ZebHashingQueue::take(ZebHashingTask* task)
{
    // Dropped after the mutex is released: the end of a task frees a block.
    TaskPointer dropped;
    const ZebMutexLocker locker(&m_Mutex);
    if (task->m_Taken)
        return false;
    task->m_Taken = true;
    if (task->m_Place) {
        dropped = std::move(**task->m_Place);
        m_Waiting.erase(*task->m_Place);
        task->m_Place.reset();
    }
    return true;
}

std::size_t ZebHashingQueue::takeWaiting(std::size_t fewest, std::size_t most,
                                         TaskPointer* taken) noexcept
{
    const ZebMutexLocker locker(&m_Mutex);
    if (m_Waiting.size() < fewest)
        return 0;
    const std::size_t count = std::min(m_Waiting.size(), most);
    for (std::size_t i = 0; i < count; ++i) {
        taken[i] = std::move(m_Waiting.front());
        taken[i]->m_Taken = true;
        taken[i]->m_Place.reset();
        m_Waiting.pop_front();
    }
    return count;
}
