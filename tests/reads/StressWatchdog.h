#pragma once

#include "reads/StressActivity.h"
#include "reads/StressFailure.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/// Ends the process when a thread of the stress makes no progress, and prints what each is doing.
class StressWatchdog
{
public:
    StressWatchdog(const std::vector<StressActivity*>& activities, int stuckMs)
        : m_Activities(activities), m_Stuck(stuckMs), m_Thread([this] { watch(); })
    {}
    ~StressWatchdog()
    {
        {
            const std::lock_guard<std::mutex> locker(m_Mutex);
            m_IsEnding = true;
        }
        m_Changed.notify_all();
        m_Thread.join();
    }
    StressWatchdog(const StressWatchdog&) = delete;
    StressWatchdog& operator=(const StressWatchdog&) = delete;

    /// Whether the workers are to move; while they stand still, only the director is.
    void setWorkersMove(bool move)
    {
        const std::lock_guard<std::mutex> locker(m_Mutex);
        m_WorkersMove = move;
    }

private:
    using Clock = std::chrono::steady_clock;

    void watch()
    {
        std::vector<quint64> last(m_Activities.size());
        std::vector<Clock::time_point> since(m_Activities.size(), Clock::now());
        std::unique_lock<std::mutex> locker(m_Mutex);
        while (!m_Changed.wait_for(locker, std::chrono::milliseconds(100),
                                   [this] { return m_IsEnding; })) {
            for (std::size_t i = 0; i < m_Activities.size(); ++i) {
                const quint64 progress = m_Activities[i]->progress();
                // The director comes last.
                const bool mayRest = !m_WorkersMove && i + 1 < m_Activities.size();
                if (progress != last[i] || mayRest)
                    since[i] = Clock::now();
                last[i] = progress;
                if (Clock::now() - since[i] > m_Stuck)
                    failStress(m_Activities[i]->name() + " is stuck" + report());
            }
        }
    }

    std::string report() const
    {
        std::string text;
        for (const StressActivity* const activity : m_Activities)
            text += "\n  " + activity->name() + ": " + activity->doing() + ", " +
                    std::to_string(activity->progress()) + " steps";
        return text;
    }

    const std::vector<StressActivity*> m_Activities;
    const std::chrono::milliseconds m_Stuck;
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    bool m_IsEnding = false;
    bool m_WorkersMove = false;
    std::thread m_Thread;
};
