#pragma once

// Internal: units of sizes. Not installed.

#include <QtGlobal>

/// The library counts in MiB, also where its messages say "MB" or "Mb". Only rates that the tool
/// prints are in MB.
namespace ZebByteUnits {

constexpr qint64 s_BytesPerMiB = 1048576;
constexpr qint64 s_BytesPerMB = 1000000;

} // namespace ZebByteUnits
