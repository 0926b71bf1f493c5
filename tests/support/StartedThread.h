#pragma once

#include "support/ThreadWatch.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

/// Finds the thread of a name that is started after this object was made. An older thread of that
/// name, which may have ended and still be listed, is not mistaken for it.
class StartedThread
{
public:
    explicit StartedThread(std::string name)
        : m_Name(std::move(name)), m_Before(ThreadWatch::threadsNamed(m_Name))
    {}

    /// Waits until the thread has its name. The oldest one if there are several.
    ThreadWatch watch() const
    {
        pid_t found = 0;
        EXPECT_TRUE(pollUntil([&] {
            for (const pid_t thread : ThreadWatch::threadsNamed(m_Name)) {
                if (std::find(m_Before.begin(), m_Before.end(), thread) == m_Before.end()) {
                    found = thread;
                    return true;
                }
            }
            return false;
        })) << "no thread was started with the name "
            << m_Name;
        return ThreadWatch(found);
    }

private:
    std::string m_Name;
    std::vector<pid_t> m_Before;
};
