#pragma once

#include <QtGlobal>

#include <condition_variable>
#include <mutex>

/// A sum of bytes that threads share, so that all of them together stay below a limit. Whoever asks
/// first is served first: a large share is not kept waiting by small ones.
///
/// Thread safety: any thread may hold a share, one for each thread.
class MemoryBudget
{
public:
    explicit MemoryBudget(qint64 bytes);

    /// A share of the budget for the length of a scope. Waits until there is so much. At most all
    /// of the budget may be asked for.
    class Share
    {
    public:
        Share(MemoryBudget& budget, qint64 bytes);
        ~Share();
        Share(const Share&) = delete;
        Share& operator=(const Share&) = delete;

    private:
        MemoryBudget& m_Budget;
        const qint64 m_Bytes;
    };

private:
    // Guards all below. Nothing is called inside it.
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    qint64 m_Free;
    // The numbers of whoever comes next, and of whoever is served next.
    quint64 m_NextTicket;
    quint64 m_Served;
};
