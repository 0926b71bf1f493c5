#pragma once

/// What the program's exit status says, the same for every command.
namespace ExitCode {

/// Everything was done.
constexpr int Success = 0;

/// Something failed on the way, and the rest was done.
constexpr int Failed = 1;

/// The command line makes no sense; nothing was done.
constexpr int BadUsage = 2;

} // namespace ExitCode
