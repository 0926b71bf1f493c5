#pragma once

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>

/// Waits until `condition` holds, for at most `deadlineMs` milliseconds, and handles no events
/// meanwhile. Returns whether it held in time.
template <typename Condition>
bool pollUntil(Condition condition, int deadlineMs = 20000)
{
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > deadlineMs)
            return condition();
        QThread::usleep(200);
    }
    return true;
}

/// pollUntil() that handles pending events of the calling thread before every look.
template <typename Condition>
bool waitUntil(Condition condition, int deadlineMs = 20000)
{
    return pollUntil(
        [&condition] {
            if (condition())
                return true;
            if (QCoreApplication::instance() != nullptr)
                QCoreApplication::processEvents();
            return false;
        },
        deadlineMs);
}
