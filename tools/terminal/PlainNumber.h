#pragma once

#include <charconv>
#include <optional>
#include <system_error>

/// Reads a number as the store writes it into names: decimal digits alone, no sign and no leading
/// zeros. Nothing when the text is anything else, or more than the type holds.
template <typename Number>
std::optional<Number> plainNumber(const char* begin, const char* end)
{
    Number number = 0;
    const auto [rest, error] = std::from_chars(begin, end, number);
    const bool leadingZero = end - begin > 1 && *begin == '0';
    if (error != std::errc() || rest != end || leadingZero || *begin == '-')
        return std::nullopt;
    return number;
}
