#pragma once

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

/// Runs `work` with the numbers from 0 to `threadCount` - 1, each on a thread of its own, and waits
/// for all of them. The threads spin until the last of them has started, so that their work begins
/// within moments.
inline void runTogether(int threadCount, const std::function<void(int)>& work)
{
    std::atomic<int> starting{threadCount};
    std::vector<std::thread> threads;
    for (int number = 0; number < threadCount; ++number) {
        threads.emplace_back([&starting, &work, number] {
            --starting;
            while (starting.load() > 0)
                std::this_thread::yield();
            work(number);
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}
