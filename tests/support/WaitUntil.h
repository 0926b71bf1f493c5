#pragma once

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>

/// Waits until `condition` holds, handling pending events meanwhile, for at most `deadlineMs`
/// milliseconds. Returns whether it held in time.
template <typename Condition>
bool waitUntil(Condition condition, int deadlineMs = 20000)
{
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > deadlineMs)
            return condition();
        if (QCoreApplication::instance() != nullptr)
            QCoreApplication::processEvents();
        QThread::usleep(200);
    }
    return true;
}
