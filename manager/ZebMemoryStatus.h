#pragma once

// Internal: where the memory probes read. Not installed.

#include <QString>

#include <optional>

/// The figures of the platform, in bytes, without the guesses that stand in for what cannot be
/// read: those come as no value.
///
/// Thread safety: any thread may call the read-outs; setSourceRoot() is for a test with no other
/// thread about.
namespace ZebMemoryStatus {

/// Physical memory, bounded by the memory limit of the process's control group.
std::optional<qint64> totalPhysicalBytes();

/// Physical memory that can be had, bounded by what the memory limits of the process's control
/// group and of the groups above it leave. File pages that those groups can drop count as free.
std::optional<qint64> freePhysicalBytes();

/// Commit limit less physical memory: the swap.
std::optional<qint64> totalSwapBytes();

/// What the address-space limit leaves, at most the user half of the address space.
std::optional<qint64> freeAddressSpaceBytes();

/// The directory below which /proc and /sys are looked for; "" is the running system.
void setSourceRoot(const QString& root);

} // namespace ZebMemoryStatus
