#pragma once

#include "io/ZebBlockFinding.h"

#include <string>

/// Findings in block files, in words.
namespace VerdictText {

/// What is wrong: "is shorter than its header says (3 bytes ...)".
std::string what(const ZebBlockVerdict& verdict);

/// The same, and what to do about it, in one line.
std::string line(const ZebBlockVerdict& verdict);

/// The name of a finding for programs: "too_short".
const char* key(ZebBlockFinding finding);

} // namespace VerdictText
