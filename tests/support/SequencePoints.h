#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>

/// Named points that the threads of a test reach and wait for, so that a test fixes an order of
/// events instead of sleeping until the order is likely.
///
///     SequencePoints points;
///     std::thread writer([&] {
///         points.reached("locked");
///         points.wait("checked");
///     });
///     points.wait("locked");
///     EXPECT_FALSE(mutex.tryLock());
///     points.reached("checked");
///
/// Every wait has a deadline. A wait that misses it fails the test, names its point and returns
/// false, so the other threads of the test still end.
///
/// Thread safety: any thread may call any function.
class SequencePoints
{
public:
    static constexpr int s_DeadlineMs = 20000;

    SequencePoints() = default;
    SequencePoints(const SequencePoints&) = delete;
    SequencePoints& operator=(const SequencePoints&) = delete;

    /// Counts one arrival at `name` and wakes the threads that wait for it. Does not wait.
    void reached(const std::string& name)
    {
        const std::lock_guard<std::mutex> locker(m_Mutex);
        ++m_Arrivals[name];
        m_Changed.notify_all();
    }

    /// Waits until there have been `arrivals` arrivals at `name`. Returns at once when they are
    /// there already: a point stays reached.
    bool wait(const std::string& name, int arrivals = 1, int deadlineMs = s_DeadlineMs)
    {
        std::unique_lock<std::mutex> locker(m_Mutex);
        const bool inTime = m_Changed.wait_for(locker, std::chrono::milliseconds(deadlineMs),
                                               [&] { return arrivalsAt(name) >= arrivals; });
        if (!inTime)
            ADD_FAILURE() << "missed \"" << name << "\": " << arrivalsAt(name) << " of " << arrivals
                          << " arrivals; reached so far:" << reachedPoints();
        return inTime;
    }

    /// Reaches `name`, then waits until another thread reaches `next`.
    bool reachedThenWait(const std::string& name, const std::string& next)
    {
        reached(name);
        return wait(next);
    }

    /// How many arrivals there have been at `name`.
    int arrivals(const std::string& name) const
    {
        const std::lock_guard<std::mutex> locker(m_Mutex);
        return arrivalsAt(name);
    }

private:
    int arrivalsAt(const std::string& name) const
    {
        const auto found = m_Arrivals.find(name);
        return found == m_Arrivals.end() ? 0 : found->second;
    }

    std::string reachedPoints() const
    {
        std::string points;
        for (const auto& [name, arrivals] : m_Arrivals)
            points += " \"" + name + "\"";
        return points.empty() ? " none" : points;
    }

    mutable std::mutex m_Mutex;
    std::condition_variable m_Changed;
    std::map<std::string, int> m_Arrivals;
};
