#pragma once

#include "support/BlockedThread.h"

#include <QMutex>
#include <QMutexLocker>
#include <QWaitCondition>

#include <gtest/gtest.h>

/// Whether `action`, done by the calling thread, wakes a thread that sleeps on this condition. The
/// action begins once that thread is seen asleep there, and the answer is whether it still is when
/// the action has returned: a woken thread counts as running from the call that wakes it.
template <typename Action>
bool wakes(QMutex& mutex, QWaitCondition& condition, Action action)
{
    BlockedThread sleeper([&] {
        const QMutexLocker locker(&mutex);
        condition.wait(&mutex);
    });
    EXPECT_TRUE(sleeper.waitsFor(condition));
    action();
    const bool woken = !sleeper.watch().isWaitingFor(condition);
    condition.wakeAll();
    return woken;
}
