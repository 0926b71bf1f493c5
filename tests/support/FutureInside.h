#pragma once

#include "data/ZebBlockFuture.h"
#include "support/PrivateAccess.h"

#include <QAtomicInt>

ZEBTDX_ACCESS(FutureInsideAliveCount, ZebBlockFuture, QAtomicInt*, m_NumHashJobs)

/// The private members of ZebBlockFuture.
namespace FutureInside {

/// How many futures exist in the process.
inline QAtomicInt& aliveCount()
{
    return *privateMember(FutureInsideAliveCount());
}

} // namespace FutureInside
