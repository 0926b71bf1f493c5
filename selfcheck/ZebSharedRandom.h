#pragma once

// Internal: the random numbers of the workers. Not installed.

/// The process's rand(), for workers on several threads.
///
/// Thread safety: any thread may call everything. Does not protect other users of rand().
namespace ZebSharedRandom {

/// What rand() returns, from 0 to RAND_MAX.
int value();

/// A number from 0 to below `count`, which must be above 0.
int below(int count);

} // namespace ZebSharedRandom
