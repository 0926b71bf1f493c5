#pragma once

#include <thread>

/// Whether another thread finds this lock free at this moment. For everything with tryLock() and
/// unlock(): QMutex, ZebTdxMutex, ZebDataHash.
template <typename Lock>
bool isFree(Lock& lock)
{
    bool taken = false;
    std::thread([&lock, &taken] {
        taken = lock.tryLock();
        if (taken)
            lock.unlock();
    }).join();
    return taken;
}
