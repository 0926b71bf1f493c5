#pragma once

/// What the program's exit status says. The commands that check a cache have names of their own for
/// the same numbers.
namespace ExitCode {

/// Everything was done.
constexpr int Success = 0;

/// Something failed on the way, and the rest was done.
constexpr int Failed = 1;

/// The command line makes no sense; nothing was done.
constexpr int BadUsage = 2;

/// A check has found damage.
constexpr int Damage = 1;

/// A check could not be made, wholly or in part, and found no damage.
constexpr int Environment = 2;

} // namespace ExitCode
