#pragma once

/// The program's exit statuses. The commands that check a cache have their own names for the same
/// numbers.
namespace ExitCode {

/// Everything was done.
constexpr int Success = 0;

/// Something failed; the rest was done.
constexpr int Failed = 1;

/// The command line is invalid; nothing was done.
constexpr int BadUsage = 2;

/// A check found damage.
constexpr int Damage = 1;

/// A check was not possible, or not complete, and found no damage.
constexpr int Environment = 2;

} // namespace ExitCode
