#include "tools/terminal/StopRequest.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <initializer_list>
#include <string>

#include <unistd.h>

namespace {

// The first signal, 0 before. Carries no other data between threads, so relaxed order is enough.
std::atomic<int> s_Signal(0);
// Set before other threads start.
bool s_IsContinued = false;

// Whether check() has thrown, and whether takeLine() has given the line away.
std::atomic<bool> s_IsThrown(false);
std::atomic<bool> s_IsTaken(false);
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler may not lock");

constexpr int s_StatusOfSignal = 128;

extern "C" void noteSignal(int signal)
{
    int none = 0;
    if (s_Signal.compare_exchange_strong(none, signal, std::memory_order_relaxed))
        return;
    // The signal is blocked here, and so ends the process when this function returns.
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

} // namespace

void StopRequest::install(bool isContinued)
{
    s_IsContinued = isContinued;
    for (const int signal : {SIGINT, SIGTERM}) {
        struct sigaction action = {};
        if (::sigaction(signal, nullptr, &action) != 0 || action.sa_handler == SIG_IGN)
            continue;
        action = {};
        action.sa_handler = &noteSignal;
        sigemptyset(&action.sa_mask);
        // Code that does not expect an interrupted system call continues with it.
        action.sa_flags = SA_RESTART;
        ::sigaction(signal, &action, nullptr);
    }
}

void StopRequest::check()
{
    const int signal = s_Signal.load(std::memory_order_relaxed);
    if (signal == 0)
        return;
    s_IsThrown.store(true, std::memory_order_relaxed);
    throw Stopped(signal);
}

std::string StopRequest::takeLine()
{
    if (!s_IsThrown.load(std::memory_order_relaxed) ||
        s_IsTaken.exchange(true, std::memory_order_relaxed))
        return {};
    return "stopped by signal " + std::to_string(s_Signal.load(std::memory_order_relaxed)) +
           (s_IsContinued ? "; run the command again to finish" : "");
}

void StopRequest::endBy(int signal)
{
    std::signal(signal, SIG_DFL);
    std::raise(signal);
    // Only where this thread has blocked the signal.
    std::_Exit(s_StatusOfSignal + signal);
}
