#include "tools/terminal/Workers.h"

#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace {

constexpr std::chrono::milliseconds s_TickInterval(100);

// The state that the threads of one call share.
struct Group
{
    std::mutex m_Mutex;
    std::condition_variable m_Ended;
    std::size_t m_Running = 0;
    std::exception_ptr m_Error;
};

void workOnce(Group& group, const std::function<void()>& work)
{
    std::exception_ptr error;
    try {
        work();
    } catch (...) {
        error = std::current_exception();
    }
    const std::lock_guard<std::mutex> locker(group.m_Mutex);
    if (group.m_Error == nullptr)
        group.m_Error = error;
    --group.m_Running;
    group.m_Ended.notify_all();
}

} // namespace

void Workers::run(int threads, const std::function<void()>& work, const std::function<void()>& tick)
{
    Group group;
    std::vector<std::thread> started;
    started.reserve(static_cast<std::size_t>(threads));
    for (int i = 0; i < threads; ++i) {
        {
            const std::lock_guard<std::mutex> locker(group.m_Mutex);
            ++group.m_Running;
        }
        try {
            started.emplace_back([&group, &work] { workOnce(group, work); });
        } catch (const std::system_error&) {
            const std::lock_guard<std::mutex> locker(group.m_Mutex);
            --group.m_Running;
            break;
        }
    }
    if (started.empty()) {
        group.m_Running = 1;
        workOnce(group, work);
    }
    for (;;) {
        std::unique_lock<std::mutex> locker(group.m_Mutex);
        if (group.m_Ended.wait_for(locker, s_TickInterval,
                                   [&group] { return group.m_Running == 0; }))
            break;
        locker.unlock();
        tick();
    }
    for (std::thread& thread : started)
        thread.join();
    tick();
    if (group.m_Error != nullptr)
        std::rethrow_exception(group.m_Error);
}
