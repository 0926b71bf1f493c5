#pragma once

#include <QtGlobal>

#include <string>

/// Remaining times, for people.
namespace TimeText {

/// "0:42 left", "1:02:03 left", estimated from the rate so far. Empty while there is none.
std::string left(qint64 done, qint64 total, qint64 elapsedMs);

} // namespace TimeText
