#pragma once

#include <functional>

/// Runs one piece of work on several threads.
namespace Workers {

/// Calls `work` on `threads` threads at once and returns when all calls have. Meanwhile calls
/// `tick` on the calling thread several times per second, and once at the end. Rethrows the first
/// exception of a call of `work`, of any type.
///
/// When the system allows fewer threads, those do the work; with none, the calling thread does.
void run(int threads, const std::function<void()>& work, const std::function<void()>& tick);

} // namespace Workers
