#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <vector>

/// The wall times of one way to do something, round after round, for comparison with another way
/// in the same rounds.
///
/// Thread safety: for one thread.
class RoundTimes
{
public:
    /// Measures `work` once. Returns its time in seconds.
    template <typename Work>
    double add(Work work)
    {
        const auto begin = std::chrono::steady_clock::now();
        work();
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begin;
        addSeconds(elapsed.count());
        return elapsed.count();
    }

    void addSeconds(double seconds) { m_Seconds.push_back(seconds); }

    std::size_t rounds() const { return m_Seconds.size(); }

    /// Seconds, 0 before the first round.
    double median() const
    {
        if (m_Seconds.empty())
            return 0;
        std::vector<double> values = m_Seconds;
        const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
        std::nth_element(values.begin(), middle, values.end());
        return *middle;
    }

private:
    std::vector<double> m_Seconds;
};
