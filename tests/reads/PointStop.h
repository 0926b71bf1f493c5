#pragma once

#include "support/BlockedThread.h"
#include "support/ZebTestPoint.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <utility>

/// Stops chosen threads once at a test point, until they are released.
///
/// Thread safety: any thread may call every function. It must outlive the threads.
class PointStop
{
public:
    explicit PointStop(ZebTestPoint point) : m_Point(point) { countArrivals(); }
    PointStop(const PointStop&) = delete;
    PointStop& operator=(const PointStop&) = delete;

    /// The calling thread stops at its next arrival at the point.
    void applyToThisThread() { s_Applied = this; }

    /// Waits until a thread has stopped; false when the deadline passes first.
    bool waitUntilReached()
    {
        std::unique_lock<std::mutex> locker(m_Mutex);
        return m_Changed.wait_for(locker, s_Deadline, [this] { return m_IsReached; });
    }

    void release()
    {
        const std::lock_guard<std::mutex> locker(m_Mutex);
        m_IsReleased = true;
        m_Changed.notify_all();
    }

    /// Counts arrivals from now on.
    static void countArrivals()
    {
        ZebTestPoints::s_Hook.store(&PointStop::reached, std::memory_order_release);
    }

    /// How often any thread has arrived at the point in this process.
    static int arrivals(ZebTestPoint point)
    {
        return s_Arrivals[static_cast<std::size_t>(point)].load();
    }

private:
    static constexpr std::chrono::seconds s_Deadline{20};

    static void reached(ZebTestPoint point)
    {
        s_Arrivals[static_cast<std::size_t>(point)].fetch_add(1);
        PointStop* const stop = s_Applied;
        if (stop == nullptr || stop->m_Point != point)
            return;
        s_Applied = nullptr;
        stop->stopHere();
    }

    void stopHere()
    {
        std::unique_lock<std::mutex> locker(m_Mutex);
        m_IsReached = true;
        m_Changed.notify_all();
        if (!m_Changed.wait_for(locker, s_Deadline, [this] { return m_IsReleased; }))
            ADD_FAILURE() << "a stopped thread was not released in time";
    }

    static inline thread_local PointStop* s_Applied = nullptr;
    static inline std::array<std::atomic<int>, static_cast<std::size_t>(ZebTestPoint::Count)>
        s_Arrivals{};

    const ZebTestPoint m_Point;
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    bool m_IsReached = false;
    bool m_IsReleased = false;
};

/// Runs a callable on a thread of its own that stops once at a test point.
class StoppedThread
{
public:
    StoppedThread(ZebTestPoint point, std::function<void()> work)
        : m_Stop(point), m_Thread([this, work = std::move(work)] {
              m_Stop.applyToThisThread();
              work();
          })
    {}
    ~StoppedThread() { m_Stop.release(); }
    StoppedThread(const StoppedThread&) = delete;
    StoppedThread& operator=(const StoppedThread&) = delete;

    /// Waits until it has stopped there.
    bool isStopped() { return m_Stop.waitUntilReached(); }

    /// Lets it go on, and waits for its end.
    bool goesOnAndEnds()
    {
        m_Stop.release();
        return m_Thread.ends();
    }

    /// Lets it go on, and waits until it sleeps at a lock; false when it ends instead.
    bool goesOnAndWaits()
    {
        constexpr int deadlineMs = 5000;
        m_Stop.release();
        return m_Thread.standsStill(deadlineMs);
    }

    bool hasEnded() const { return m_Thread.hasEnded(); }

private:
    PointStop m_Stop;
    BlockedThread m_Thread;
};
