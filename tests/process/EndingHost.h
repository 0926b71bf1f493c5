#pragma once

#include "data/ZebBlockFuture.h"
#include "data/ZebConstAccessor.h"
#include "data/ZebDataReference.h"
#include "data/ZebResultCache.h"
#include "hash/ZebSmartPointer.h"
#include "manager/ZebDataBlockManager.h"

#include <QByteArray>
#include <QString>

#include <optional>
#include <vector>

/// What a host may hold when its process ends.
struct KeptByHost
{
    ZebDataReference m_Reference;
    std::vector<ZebDataReference> m_References;
    ZebResultCache m_Results;
    std::optional<ZebConstAccessor> m_Accessor;
    ZebSmartPointer<ZebBlockFuture> m_Job;
};

inline ZebDataBlockManager& store()
{
    return ZebDataBlockManager::instance();
}

/// The blob of this number; each number has another.
inline QByteArray blob(int number)
{
    return QByteArray(100000, 'b') + QByteArray::number(number);
}

/// Forks, ends the child by `_exit` or by `exit`, and returns 0 if it ends with 0 in time. A child
/// that hangs is killed.
int forkAndEnd(bool byExit);

/// Forks a child without a store, while a task of Qt's global pool runs; the child calls exit().
int forkAfterCleanUp();

/// The same many times, while other threads use the store.
int forkManyTimes(bool byExit);

/// Forks and ends the child, a number of times; the same result as forkAndEnd().
int forkRepeatedly(bool byExit);

/// Forks many times, while other threads lock all blocks and read.
int forkWhileLocking(bool byExit);

/// Threads that close accessors to the very end of the process.
int closeInThreads();

/// Accessors that are closed by thread-local destructors.
int closeInLateDestructors();
