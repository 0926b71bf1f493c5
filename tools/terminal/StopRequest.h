#pragma once

#include <string>

/// The user's request to end the command: SIGINT or SIGTERM.
///
/// The first signal only sets a flag. Commands call check() between two pieces of work, so that
/// what they write is whole. A second signal ends the process at once.
///
/// Thread safety: any thread may call every operation.
namespace StopRequest {

/// check() throws this. It is no std::exception, so that code that reports the failure of one file
/// and continues with the next does not catch it.
class Stopped
{
public:
    explicit Stopped(int signal) : m_Signal(signal) {}

    /// The number of the signal.
    int signal() const { return m_Signal; }

private:
    int m_Signal;
};

/// Catches the signals from now on, except for those that the parent process has set to be ignored.
/// Must be called once, before other threads start.
///
/// @param isContinued whether another run of the command finishes what a stop leaves
void install(bool isContinued = false);

/// Throws a Stopped when the user has asked to stop.
void check();

/// What the user reads about the stop, once check() has thrown. Empty before that, and after the
/// first call that was not: the line is printed once.
std::string takeLine();

/// Ends the process by this signal's default action, so that a shell sees 128 + signal.
[[noreturn]] void endBy(int signal);

} // namespace StopRequest
