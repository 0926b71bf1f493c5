#pragma once

// Internal: the wait for a thread pool while the process exits. Not installed.

class QThreadPool;

namespace ZebPoolExit {

/// Waits for the tasks of `pool`. If exit() was called in a task of any pool, waits only until at
/// most one thread of `pool` is busy: a thread does not know its pool, and the wait for its own
/// task would never end.
void waitForOthers(QThreadPool& pool);

} // namespace ZebPoolExit
