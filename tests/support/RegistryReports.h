#pragma once

#include "hash/ZebHashManager.h"
#include "support/MessageCapture.h"

#include <QString>
#include <QStringList>

#include <gtest/gtest.h>

#include <ostream>

/// What the process's registry of hashes prints.
namespace RegistryReports {

/// The debug lines of one operation, which must have no other messages.
inline QStringList linesOf(void (ZebHashManager::*operation)())
{
    // The creation of the registry logs a line once in a process, which belongs to no operation.
    ZebHashManager& registry = ZebHashManager::instance();
    const MessageCapture messages;
    (registry.*operation)();
    for (const MessageCapture::Message& message : messages.messages()) {
        EXPECT_EQ(message.m_Type, QtDebugMsg);
        EXPECT_FALSE(message.m_HasContext);
    }
    return messages.debugLines();
}

/// The counters of the registry.
struct Stats
{
    int m_Hits;
    int m_Misses;
    int m_Requests;
    int m_Removes;

    bool operator==(const Stats& other) const
    {
        return m_Hits == other.m_Hits && m_Misses == other.m_Misses &&
               m_Requests == other.m_Requests && m_Removes == other.m_Removes;
    }
};

inline std::ostream& operator<<(std::ostream& stream, const Stats& stats)
{
    return stream << "hits " << stats.m_Hits << ", misses " << stats.m_Misses << ", requests "
                  << stats.m_Requests << ", removes " << stats.m_Removes;
}

/// The counters as dumpStats() prints them.
inline Stats stats()
{
    const QStringList lines = linesOf(&ZebHashManager::dumpStats);
    EXPECT_EQ(lines.size(), 8);
    const auto number = [&lines](int line) {
        return lines.value(line).section(' ', -1).toInt();
    };
    return {number(1), number(2), number(3), number(4)};
}

} // namespace RegistryReports
