#pragma once

#include <functional>

/// Threads for one piece of work.
namespace Workers {

/// Calls `work` on `threads` threads at once and returns when all calls have. Meanwhile calls
/// `tick` on the calling thread some times per second, and once at the end. The first exception
/// that a call of `work` ends with is thrown again.
///
/// When the system gives fewer threads, those do the work; with none, the calling thread does.
void run(int threads, const std::function<void()>& work, const std::function<void()>& tick);

} // namespace Workers
