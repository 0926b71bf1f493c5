#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <vector>

/// Lets the director stop all threads of the stress at a point where each has nothing in progress,
/// and have chosen threads do something there.
///
/// Thread safety: the director is one thread; each worker calls arrive() with its own number.
class StressPause
{
public:
    explicit StressPause(int workers) : m_Tasks(static_cast<std::size_t>(workers)) {}

    // For the workers

    /// Whether the worker is to call arrive() soon.
    bool isRequested() const
    {
        const std::lock_guard<std::mutex> locker(m_Mutex);
        return m_IsRequested;
    }

    /// Stands still until the director lets all go on, and runs its tasks meanwhile. Returns false
    /// when the worker is to end.
    bool arrive(int worker)
    {
        std::unique_lock<std::mutex> locker(m_Mutex);
        std::function<void()>& task = m_Tasks[static_cast<std::size_t>(worker)];
        ++m_Arrived;
        m_Changed.notify_all();
        const int round = m_Round;
        for (;;) {
            m_Changed.wait(locker, [&] { return m_Round != round || task; });
            if (!task)
                break;
            const std::function<void()> work = std::move(task);
            task = nullptr;
            locker.unlock();
            work();
            locker.lock();
            --m_Running;
            m_Changed.notify_all();
        }
        return !m_IsEnding;
    }

    // For the director

    /// Waits until all workers stand still.
    void stopAll()
    {
        std::unique_lock<std::mutex> locker(m_Mutex);
        m_IsRequested = true;
        m_Changed.wait(locker, [this] { return m_Arrived == m_Tasks.size(); });
    }

    /// Has each of these workers run its task, all at the same time, and waits for them. All must
    /// stand still.
    void perform(const std::vector<std::pair<int, std::function<void()>>>& tasks)
    {
        std::unique_lock<std::mutex> locker(m_Mutex);
        for (const auto& [worker, task] : tasks)
            m_Tasks[static_cast<std::size_t>(worker)] = task;
        m_Running = tasks.size();
        m_Changed.notify_all();
        m_Changed.wait(locker, [this] { return m_Running == 0; });
    }

    void perform(int worker, const std::function<void()>& task) { perform({{worker, task}}); }

    /// Lets all workers go on, or end.
    void goOn(bool isEnding)
    {
        const std::lock_guard<std::mutex> locker(m_Mutex);
        m_IsRequested = false;
        m_IsEnding = isEnding;
        m_Arrived = 0;
        ++m_Round;
        m_Changed.notify_all();
    }

private:
    mutable std::mutex m_Mutex;
    std::condition_variable m_Changed;
    bool m_IsRequested = false;
    bool m_IsEnding = false;
    int m_Round = 0;
    std::size_t m_Arrived = 0;
    std::size_t m_Running = 0;
    std::vector<std::function<void()>> m_Tasks;
};
