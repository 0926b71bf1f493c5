#pragma once

#include "support/StoreInside.h"

#include <thread>

/// Whether another thread can take the delete lock now. A thread of the store may hold it for a
/// moment, so the other thread waits a little for it.
inline bool deleteLockIsFree()
{
    bool locked = false;
    std::thread([&locked] {
        locked = StoreInside::deleteLock().tryLock(50);
        if (locked)
            StoreInside::deleteLock().unlock();
    }).join();
    return locked;
}
