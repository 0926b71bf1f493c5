#pragma once

#include "io/ZebCacheRootLock.h"

#include <string>
#include <vector>

/// Keeps other processes away from all roots of a cache while it exists: other processes of the
/// tool, and hosts that take a ZebCacheRootLock.
///
/// Thread safety: an object belongs to one thread at a time.
class RootLock
{
public:
    enum class Use
    {
        /// Shared with other readers.
        Reading,
        /// Exclusive.
        Alone
    };

    /// Locks all roots or none, and does not wait. Throws a ToolError with the code EWOULDBLOCK
    /// when another process holds one of them, and another ToolError for a root that cannot be
    /// locked at all.
    void take(const std::vector<std::string>& roots, Use use);

private:
    std::vector<ZebCacheRootLock> m_Held;
};
