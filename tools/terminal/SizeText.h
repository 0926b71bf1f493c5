#pragma once

#include <QtGlobal>

#include <optional>
#include <string>

/// Sizes as people write and read them. Units are powers of 1024.
namespace SizeText {

/// The bytes of a whole number with an optional unit after it: K, M, G or T, also written KiB, MiB,
/// GiB or TiB, in any case. Empty for any other text, such as a fraction, a sign, a blank or KB,
/// and for sizes that do not fit in 63 bits.
std::optional<qint64> parse(const std::string& text);

/// Short: "512 bytes", "256 KiB", and with one decimal where the size is not a multiple of the
/// unit, "1.5 GiB". `bytes` is not negative.
std::string print(qint64 bytes);

/// Exact, with a comma between groups of three digits.
std::string grouped(qint64 number);

} // namespace SizeText
