#pragma once

#include <QtGlobal>

#include <string>

/// How long something will still take, for people.
namespace TimeText {

/// "0:42 left", "1:02:03 left", by the pace until now. Empty as long as that says nothing.
std::string left(qint64 done, qint64 total, qint64 elapsedMs);

} // namespace TimeText
