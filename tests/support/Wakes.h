#pragma once

#include <QMutex>
#include <QWaitCondition>

#include <thread>

/// Whether `action`, done by another thread, wakes a sleeper on this condition within `deadlineMs`
/// milliseconds. The action begins only once the sleeper sleeps, and has ended on return.
template <typename Action>
bool wakes(QMutex& mutex, QWaitCondition& condition, Action action, int deadlineMs)
{
    mutex.lock();
    std::thread actor([&] {
        mutex.lock();
        mutex.unlock();
        action();
    });
    const bool woken = condition.wait(&mutex, static_cast<unsigned long>(deadlineMs));
    mutex.unlock();
    actor.join();
    return woken;
}
