#pragma once

// Internal: how the library starts its threads. Not installed.

#include <QThread>

/// Starts a thread. If the system refuses another thread, as under a limit on processes, reports a
/// fatal message and ends the process: the store would wait for that thread indefinitely.
///
/// Thread safety: that of QThread::start(). The caller is the only one to start this thread.
void ZebThreadStart(QThread* thread, QThread::Priority priority);
