#pragma once

#include "support/ZebTdxExport.h"

#include <QtGlobal>

// What the machine has of memory, in bytes. Each call asks afresh and keeps nothing.
//
// On Linux the figures come from the kernel and respect the limits that the process runs under: the
// memory limit of its control group and its address-space limit. A figure that cannot be read is
// reported by a debug line and replaced by a cautious guess, so that a host can go on.
//
// Thread safety: any thread may call any of them.

/// Physical memory in all, or the memory limit of the process's control group where that is less.
/// 8 GiB when it cannot be read.
ZEBTDX_EXPORT qint64 ZebGetTotalPhysicalMemoryBytes();

/// Swap in all; 0 on a machine without. 1 when it cannot be read.
ZEBTDX_EXPORT qint64 ZebGetTotalSwapMemoryBytes();

/// Physical memory that can still be had without swapping, at most what the memory limit of the
/// process's control group leaves. A fifth of the total when it cannot be read.
ZEBTDX_EXPORT qint64 ZebGetFreePhysicalMemoryBytes();

/// Address space that this process can still use. A fifth of the swap when it cannot be read.
ZEBTDX_EXPORT qint64 ZebGetFreeVirtualMemoryBytes();

/// Whether there is any swap.
ZEBTDX_EXPORT bool ZebSystemHasVirtualMemory();
