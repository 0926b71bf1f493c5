#include "io/ZebMemoryBudget.h"

ZebMemoryBudget::ZebMemoryBudget(qint64 bytes) : m_Free(bytes), m_NextTicket(0), m_Served(0) {}

ZebMemoryBudget::Share::Share(ZebMemoryBudget& budget, qint64 bytes)
    : m_Budget(budget), m_Bytes(bytes)
{
    std::unique_lock<std::mutex> locker(budget.m_Mutex);
    const quint64 ticket = budget.m_NextTicket++;
    budget.m_Changed.wait(locker, [&budget, ticket, bytes] {
        return budget.m_Served == ticket && budget.m_Free >= bytes;
    });
    budget.m_Free -= bytes;
    ++budget.m_Served;
    budget.m_Changed.notify_all();
}

ZebMemoryBudget::Share::~Share()
{
    const std::lock_guard<std::mutex> locker(m_Budget.m_Mutex);
    m_Budget.m_Free += m_Bytes;
    m_Budget.m_Changed.notify_all();
}
