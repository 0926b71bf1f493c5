#pragma once

// Internal: numbers as they stand in the names of files. Not installed.

#include <charconv>
#include <optional>
#include <system_error>

/// Reads a number as the store writes it into names: decimal digits alone, no sign and no leading
/// zeros. Empty for any other text, and for a number that the type does not hold.
template <typename Number>
std::optional<Number> ZebPlainNumber(const char* begin, const char* end)
{
    Number number = 0;
    const auto [rest, error] = std::from_chars(begin, end, number);
    const bool leadingZero = end - begin > 1 && *begin == '0';
    if (error != std::errc() || rest != end || leadingZero || *begin == '-')
        return std::nullopt;
    return number;
}
