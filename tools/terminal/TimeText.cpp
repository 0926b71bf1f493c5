#include "tools/terminal/TimeText.h"

#include <cmath>

namespace {

constexpr qint64 s_FirstGuessMs = 500;
constexpr qint64 s_MsPerSecond = 1000;
constexpr qint64 s_Sixty = 60;
constexpr qint64 s_LongestSeconds = 99 * s_Sixty * s_Sixty;

std::string twoDigits(qint64 number)
{
    return (number < 10 ? "0" : "") + std::to_string(number);
}

} // namespace

std::string TimeText::left(qint64 done, qint64 total, qint64 elapsedMs)
{
    if (elapsedMs < s_FirstGuessMs || done <= 0 || done > total)
        return {};
    const double guess = static_cast<double>(elapsedMs) / s_MsPerSecond *
                         static_cast<double>(total - done) / static_cast<double>(done);
    if (guess > static_cast<double>(s_LongestSeconds))
        return {};
    const auto seconds = static_cast<qint64>(std::ceil(guess));
    const qint64 minutes = seconds / s_Sixty;
    const std::string rest = twoDigits(seconds % s_Sixty) + " left";
    if (minutes < s_Sixty)
        return std::to_string(minutes) + ":" + rest;
    return std::to_string(minutes / s_Sixty) + ":" + twoDigits(minutes % s_Sixty) + ":" + rest;
}
