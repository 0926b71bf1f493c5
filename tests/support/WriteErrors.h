#pragma once

#include "support/Manager.h"
#include "support/WaitUntil.h"

#include <QObject>

#include <atomic>

/// Counts the write errors that the store signals from now on.
class WriteErrors
{
public:
    WriteErrors()
    {
        QObject::connect(
            &manager(), &ZebDataBlockManager::writeError, &m_Receiver, [this] { ++m_Count; },
            Qt::DirectConnection);
    }
    WriteErrors(const WriteErrors&) = delete;
    WriteErrors& operator=(const WriteErrors&) = delete;

    /// Waits until there have been `count` of them; false when the deadline passes first.
    bool waitFor(int count) const
    {
        return waitUntil([this, count] { return m_Count.load() >= count; });
    }

private:
    std::atomic<int> m_Count{0};
    QObject m_Receiver;
};
