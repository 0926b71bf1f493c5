#pragma once

// Internal: what all checks share. Not installed.

#include "support/ZebByteUnits.h"

#include <QString>
#include <QtGlobal>

/// The lines that the checks print, and the figures in them.
///
/// Thread safety: any thread may call everything but setBlockCountSource().
namespace ZebSelfCheck {

/// The buckets of the stores of most checks.
constexpr int s_Buckets = 10;

/// The name of the sub-cache of all checks whose files are collected.
extern const char* const s_SubCache;

/// Sends a line to the debug log, formatted as printf() does; texts are UTF-8.
void line(const char* format, ...) Q_ATTRIBUTE_FORMAT_PRINTF(1, 2);

/// The same for the message of a failed condition. Always false, so that a check can return it.
bool failure(const char* format, ...) Q_ATTRIBUTE_FORMAT_PRINTF(1, 2);

double megabytes(qint64 bytes);

double seconds(qint64 milliseconds);

/// `amount` per second; a time too short to measure counts as a millisecond.
double perSecond(double amount, qint64 milliseconds);

/// The number of blocks in the process, as the checks see it: ZebDataBlock::blockCount().
int blockCount();

/// Makes blockCount() call `source` instead, so that a test reaches the code after a comparison
/// that never holds; null restores the library's own figure. Not while a check runs.
void setBlockCountSource(int (*source)());

} // namespace ZebSelfCheck
