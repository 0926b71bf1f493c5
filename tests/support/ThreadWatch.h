#pragma once

#include "support/WaitPlace.h"

#include <QtGlobal>

#include <string>
#include <vector>

#include <sys/types.h>

/// What the kernel reports about one thread of this process, by which a test proves that the thread
/// sleeps and where, instead of waiting for a while and hoping.
///
/// /proc/self/task/<thread>/syscall gives the system call in which a thread sleeps, with its
/// arguments. While a thread is being woken this file may still show the call, so the state in
/// /proc/self/task/<thread>/stat is read before it: a thread that another one has woken counts as
/// running there before the call that woke it returns. So a thread that is seen asleep at a lock
/// which the test holds cannot pass it before the test unlocks.
class ThreadWatch
{
public:
    static constexpr int s_DeadlineMs = 20000;

    explicit ThreadWatch(pid_t thread) : m_Thread(thread) {}

    /// The calling thread's number.
    static pid_t currentThread();

    /// The threads of this process with this name, of which the kernel keeps the first 15
    /// characters. Qt names a QThread after its object name, else after its class.
    static std::vector<pid_t> threadsNamed(const std::string& name);

    /// Whether the thread sleeps at `place` at this moment.
    bool isWaitingFor(const WaitPlace& place) const { return place.contains(futexAddress()); }

    /// Whether the thread sleeps at some lock, condition or semaphore at this moment.
    bool isWaiting() const { return futexAddress() != 0; }

    /// Waits until the thread sleeps at `place`; false when the deadline passes first.
    bool waitsFor(const WaitPlace& place, int deadlineMs = s_DeadlineMs) const;

    /// Waits until the thread has slept at one lock, condition or semaphore for 20 ms without
    /// having run in between; false when the deadline passes first. This proves less than
    /// waitsFor(): the thread may wait for something other than the test means. Use it where the
    /// test cannot name the object.
    bool standsStill(int deadlineMs = s_DeadlineMs) const;

    /// Whether the thread sleeps in the system call of this number at this moment, such as
    /// SYS_read.
    bool isInCall(long call) const;

private:
    // Whether the thread sleeps, and is not being woken.
    bool isAsleep() const;

    // The address of the futex at which the thread sleeps, 0 if it does not.
    quintptr futexAddress() const;

    // How many times the thread has been given a processor.
    std::string timesRun() const;

    std::string read(const char* file) const;

    pid_t m_Thread;
};
