#pragma once

#include <QtGlobal>

#include <cerrno>
#include <ctime>
#include <functional>
#include <utility>
#include <vector>

/// Takes the sleeps of the thread that constructs it: while it exists, QThread::sleep(), msleep()
/// and usleep() of that thread do not sleep, their durations are recorded, and an action of the
/// test's runs in their place. The action itself may sleep. So a test checks how long a function
/// sleeps without waiting and without a clock.
///
/// Replaces nanosleep() in the whole program, so only one source file of a program may include it.
class RecordedSleeps
{
public:
    explicit RecordedSleeps(std::function<void()> inPlaceOfEach = {})
        : m_InPlaceOfEach(std::move(inPlaceOfEach))
    {
        s_Current = this;
    }
    ~RecordedSleeps() { s_Current = nullptr; }
    RecordedSleeps(const RecordedSleeps&) = delete;
    RecordedSleeps& operator=(const RecordedSleeps&) = delete;

    /// The durations so far, in the order of the sleeps.
    const std::vector<qint64>& milliseconds() const { return m_Milliseconds; }

    /// What nanosleep() does in this program.
    static int sleep(const timespec* duration, timespec* left)
    {
        RecordedSleeps* const current = std::exchange(s_Current, nullptr);
        if (current == nullptr) {
            errno = ::clock_nanosleep(CLOCK_MONOTONIC, 0, duration, left);
            return errno == 0 ? 0 : -1;
        }
        current->m_Milliseconds.push_back(duration->tv_sec * 1000 + duration->tv_nsec / 1000000);
        if (current->m_InPlaceOfEach)
            current->m_InPlaceOfEach();
        s_Current = current;
        return 0;
    }

private:
    inline static thread_local RecordedSleeps* s_Current = nullptr;

    std::function<void()> m_InPlaceOfEach;
    std::vector<qint64> m_Milliseconds;
};

// Exported, so that the calls from inside the Qt library come here, too.
extern "C" __attribute__((visibility("default"))) int nanosleep(const timespec* duration,
                                                                timespec* left)
{
    return RecordedSleeps::sleep(duration, left);
}
