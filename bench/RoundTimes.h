#pragma once

#include <algorithm>
#include <cstddef>
#include <ctime>
#include <vector>

/// The times of one implementation, round after round, for comparison with another implementation
/// in the same rounds.
///
/// Thread safety: for one thread.
class RoundTimes
{
public:
    /// Measures `work` once: its wall time, and the processor time of all threads. Returns the wall
    /// time in seconds.
    template <typename Work>
    double add(Work work)
    {
        const double wall = now(CLOCK_MONOTONIC);
        const double processor = now(CLOCK_PROCESS_CPUTIME_ID);
        work();
        m_ProcessorSeconds.push_back(now(CLOCK_PROCESS_CPUTIME_ID) - processor);
        addSeconds(now(CLOCK_MONOTONIC) - wall);
        return m_Seconds.back();
    }

    /// Measures the processor time of `work` on this thread, instead of its wall time. Returns it
    /// in seconds.
    template <typename Work>
    double addThreadTime(Work work)
    {
        const double begin = now(CLOCK_THREAD_CPUTIME_ID);
        work();
        addSeconds(now(CLOCK_THREAD_CPUTIME_ID) - begin);
        return m_Seconds.back();
    }

    /// Adds a round that was measured elsewhere.
    void addSeconds(double seconds) { m_Seconds.push_back(seconds); }

    std::size_t rounds() const { return m_Seconds.size(); }

    /// Seconds, 0 before the first round.
    double median() const { return medianOf(m_Seconds); }

    /// The processor seconds of the rounds of add(), 0 before the first one.
    double processorMedian() const { return medianOf(m_ProcessorSeconds); }

private:
    static double now(clockid_t clock)
    {
        constexpr double secondsPerNanosecond = 1e-9;
        timespec time = {};
        ::clock_gettime(clock, &time);
        return static_cast<double>(time.tv_sec) +
               static_cast<double>(time.tv_nsec) * secondsPerNanosecond;
    }

    static double medianOf(std::vector<double> values)
    {
        if (values.empty())
            return 0;
        const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
        std::nth_element(values.begin(), middle, values.end());
        return *middle;
    }

    std::vector<double> m_Seconds;
    std::vector<double> m_ProcessorSeconds;
};
