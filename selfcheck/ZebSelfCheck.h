#pragma once

// Internal: what all checks share. Not installed.

#include <QString>
#include <QtGlobal>

/// The words of the checks, and the figures in them.
///
/// Thread safety: any thread may call everything but setBlockCountSource().
namespace ZebSelfCheck {

constexpr qint64 s_BytesPerMegabyte = 1048576;

/// The name of the sub-cache of all checks whose files are collected.
extern const char* const s_SubCache;

/// Sends a line to the debug log, formatted as printf() does; texts are UTF-8.
void line(const char* format, ...) Q_ATTRIBUTE_FORMAT_PRINTF(1, 2);

/// The same for the words of a failed condition. Always false, so that a check can return it.
bool failure(const char* format, ...) Q_ATTRIBUTE_FORMAT_PRINTF(1, 2);

double megabytes(qint64 bytes);

double seconds(qint64 milliseconds);

/// `amount` for each second; a time too short to measure counts as a millisecond.
double perSecond(double amount, qint64 milliseconds);

/// What the checks take for the number of blocks in the process: ZebDataBlock::blockCount().
int blockCount();

/// Lets the checks ask `source` instead, so that a test reaches what stands behind a comparison
/// that never holds; null for the library's own figure. With no check running.
void setBlockCountSource(int (*source)());

} // namespace ZebSelfCheck
