#pragma once

// Internal: how the store's counters count. Not installed.

/// Adds 1 to a counter. In a host that runs for days a counter may pass the largest int; it then
/// continues from the smallest.
inline void ZebCountUp(int& counter)
{
    counter = static_cast<int>(static_cast<unsigned>(counter) + 1U);
}
