#pragma once

#include <string>

/// Paths in messages. The tool keeps every path as the bytes that the system gave, and opens files
/// by those bytes, so it can reach any name; only what is shown is made safe for a terminal.
namespace PathText {

/// The path on one line and in valid UTF-8: control characters, and bytes that are not UTF-8, show
/// as \xNN; an empty path as ''.
std::string printable(const std::string& path);

} // namespace PathText
