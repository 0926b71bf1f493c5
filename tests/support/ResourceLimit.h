#pragma once

#include <gtest/gtest.h>

#include <csignal>
#include <sys/resource.h>

/// A soft limit of this whole process for the length of a scope. A write beyond a file size limit
/// fails meanwhile and does not end the process.
///
/// Nothing may be printed inside the scope: standard output may be a file.
class ResourceLimit
{
public:
    ResourceLimit(__rlimit_resource_t resource, rlim_t limit) : m_Resource(resource)
    {
        EXPECT_EQ(getrlimit(m_Resource, &m_Before), 0);
        m_Handler = std::signal(SIGXFSZ, SIG_IGN);
        rlimit now = m_Before;
        now.rlim_cur = limit;
        EXPECT_EQ(setrlimit(m_Resource, &now), 0);
    }
    ~ResourceLimit()
    {
        EXPECT_EQ(setrlimit(m_Resource, &m_Before), 0);
        std::signal(SIGXFSZ, m_Handler);
    }
    ResourceLimit(const ResourceLimit&) = delete;
    ResourceLimit& operator=(const ResourceLimit&) = delete;

private:
    __rlimit_resource_t m_Resource;
    rlimit m_Before{};
    void (*m_Handler)(int) = nullptr;
};
