#pragma once

#include "support/ZebTdxExport.h"

#include <QtGlobal>

// The memory of the machine, in bytes. Each call reads the figure anew.
//
// On Linux the figures respect the limits of the process: the memory limit of its control group and
// its address-space limit. When a figure cannot be read, the call logs a debug line and returns a
// cautious guess.
//
// Thread safety: any thread may call any of these functions.

/// Physical memory, or the memory limit of the process's control group if that is lower. 8 GiB when
/// it cannot be read.
ZEBTDX_EXPORT qint64 ZebGetTotalPhysicalMemoryBytes();

/// Swap space; 0 without swap, 1 when it cannot be read.
ZEBTDX_EXPORT qint64 ZebGetTotalSwapMemoryBytes();

/// Physical memory available without swapping, at most what the memory limit of the process's
/// control group leaves. A fifth of the total when it cannot be read.
ZEBTDX_EXPORT qint64 ZebGetFreePhysicalMemoryBytes();

/// Address space that the process can still use. A fifth of the swap when it cannot be read.
ZEBTDX_EXPORT qint64 ZebGetFreeVirtualMemoryBytes();

/// Whether the machine has swap space; true when it cannot be read.
ZEBTDX_EXPORT bool ZebSystemHasVirtualMemory();
