#pragma once

// Internal: a memory limit for several threads. Not installed.

#include <QtGlobal>

#include <condition_variable>
#include <mutex>

/// A number of bytes that threads share, so that all of them together stay within a limit. Requests
/// are served in order, so that small shares cannot starve a large one.
///
/// Thread safety: any thread may hold one share at a time.
class ZebMemoryBudget
{
public:
    explicit ZebMemoryBudget(qint64 bytes);

    /// A share of the budget for the length of a scope. Waits until that many bytes are free. Must
    /// not ask for more than the whole budget.
    class Share
    {
    public:
        Share(ZebMemoryBudget& budget, qint64 bytes);
        ~Share();
        Share(const Share&) = delete;
        Share& operator=(const Share&) = delete;

    private:
        ZebMemoryBudget& m_Budget;
        const qint64 m_Bytes;
    };

private:
    // Guards all below. A leaf lock.
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    qint64 m_Free;
    // The numbers of the next request, and of the next one to be served.
    quint64 m_NextTicket;
    quint64 m_Served;
};
