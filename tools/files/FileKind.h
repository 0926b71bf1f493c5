#pragma once

#include <string>

#include <sys/types.h>

/// Why things in the file system cannot be read as files.
namespace FileKind {

/// What a thing of this mode is instead of a file with content: "is a socket". Empty for a regular
/// file.
std::string whyNotAFile(mode_t mode);

/// The system's words for an error number.
std::string errorText(int number);

} // namespace FileKind
