#pragma once

// Internal: the platform's memory figures. Not installed.

#include <QString>

#include <optional>

/// The platform's memory figures in bytes; no value for a figure that cannot be read.
///
/// The getters read the kernel's files anew each time and allocate nothing.
///
/// Thread safety: any thread may call the getters. setSourceRoot() must not run concurrently with
/// them.
namespace ZebMemoryStatus {

/// Physical memory, at most the memory limit of the process's control group.
std::optional<qint64> totalPhysicalBytes();

/// Available physical memory, at most what the memory limits of the process's control group and of
/// its parent groups leave. What the kernel gives back on demand counts as available: the file
/// pages and the reclaimable slab of these groups.
std::optional<qint64> freePhysicalBytes();

/// Swap: the commit limit less the physical memory.
std::optional<qint64> totalSwapBytes();

/// What the address-space limit leaves, at most the user half of the address space.
std::optional<qint64> freeAddressSpaceBytes();

/// Reads /proc and /sys below this directory; "" stands for the running system. For tests.
void setSourceRoot(const QString& root);

} // namespace ZebMemoryStatus
