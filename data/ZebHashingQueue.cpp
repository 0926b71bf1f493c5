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
    task->m_Number = ++m_Listed;
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

std::size_t ZebHashingQueue::takeWaiting(std::size_t fewest, std::size_t most, std::size_t threads,
                                         TaskPointer* taken) noexcept
{
    const ZebMutexLocker locker(&m_Mutex);
    // Rounded up, and less the caller's own task.
    const std::size_t share = (m_Waiting.size() + threads) / threads - 1;
    const std::size_t count = std::min(share, most);
    if (count < fewest)
        return 0;
    for (std::size_t i = 0; i < count; ++i) {
        taken[i] = std::move(m_Waiting.front());
        taken[i]->m_Taken = true;
        taken[i]->m_Place.reset();
        m_Waiting.pop_front();
    }
    return count;
}
