#include "tools/terminal/SizeText.h"

#include <array>
#include <charconv>
#include <limits>
#include <system_error>

namespace {

constexpr quint64 s_UnitStep = 1024;

// The power of 1024 that a unit stands for.
std::optional<int> unitPower(const std::string& unit)
{
    static const std::string letters = "kmgt";
    if (unit.empty())
        return 0;
    std::string lower;
    for (const char c : unit)
        lower += c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    const std::size_t power = letters.find(lower.front());
    if (power == std::string::npos)
        return std::nullopt;
    if (lower.size() > 1 && lower.substr(1) != "ib")
        return std::nullopt;
    return static_cast<int>(power) + 1;
}

} // namespace

std::optional<qint64> SizeText::parse(const std::string& text)
{
    // Unsigned, as reading a signed number would accept a minus sign.
    quint64 number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc())
        return std::nullopt;
    const std::optional<int> power = unitPower(std::string(rest, end));
    if (!power)
        return std::nullopt;
    constexpr quint64 largest = std::numeric_limits<qint64>::max();
    for (int i = 0; i < *power; ++i) {
        if (number > largest / s_UnitStep)
            return std::nullopt;
        number *= s_UnitStep;
    }
    if (number > largest)
        return std::nullopt;
    return static_cast<qint64>(number);
}

std::string SizeText::print(qint64 bytes)
{
    static const std::array<const char*, 6> units = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    const auto size = static_cast<quint64>(bytes);
    if (size < s_UnitStep)
        return std::to_string(size) + (size == 1 ? " byte" : " bytes");
    quint64 unit = s_UnitStep;
    std::size_t index = 0;
    quint64 tenths = 0;
    for (;;) {
        tenths = size / unit * 10 + (size % unit * 10 + unit / 2) / unit;
        // What rounds to 1024.0 of a unit is 1.0 of the next.
        if (tenths < s_UnitStep * 10 || index + 1 == units.size())
            break;
        unit *= s_UnitStep;
        ++index;
    }
    const std::string decimal = size % unit == 0 ? "" : "." + std::to_string(tenths % 10);
    return std::to_string(tenths / 10) + decimal + " " + units[index];
}

std::string SizeText::grouped(qint64 number)
{
    std::string text = std::to_string(number);
    const std::size_t digitsBegin = number < 0 ? 1 : 0;
    for (std::size_t end = text.size(); end > digitsBegin + 3; end -= 3)
        text.insert(end - 3, ",");
    return text;
}
