#include "manager/ZebSystemMemory.h"

#include "manager/ZebMemoryStatus.h"
#include "support/ZebTdxMessage.h"

#include <QString>

namespace {

constexpr qint64 s_GuessedPhysicalBytes = 0x200000000;
constexpr qint64 s_GuessedSwapBytes = 1;
constexpr qint64 s_FreeDivisor = 5;

// Kept on purpose: the file name and the line numbers below are fixed, since hosts may identify the
// failed probe by them.
void reportFailure(int line, const char* words)
{
    ZebTdxMessage::debug(QString::asprintf("%s:%i:[ !! ] %s", "ZebSystemMemory.cpp", line, words));
}

} // namespace

qint64 ZebGetTotalPhysicalMemoryBytes()
{
    const std::optional<qint64> total = ZebMemoryStatus::totalPhysicalBytes();
    if (total)
        return *total;
    reportFailure(165, "Error retrieving memory information.");
    return s_GuessedPhysicalBytes;
}

qint64 ZebGetTotalSwapMemoryBytes()
{
    const std::optional<qint64> swap = ZebMemoryStatus::totalSwapBytes();
    if (swap)
        return *swap;
    reportFailure(115, "Error retrieving swap memory information.");
    return s_GuessedSwapBytes;
}

qint64 ZebGetFreePhysicalMemoryBytes()
{
    const std::optional<qint64> free = ZebMemoryStatus::freePhysicalBytes();
    if (free)
        return *free;
    reportFailure(232, "Error retrieving memory information.");
    return ZebGetTotalPhysicalMemoryBytes() / s_FreeDivisor;
}

qint64 ZebGetFreeVirtualMemoryBytes()
{
    const std::optional<qint64> free = ZebMemoryStatus::freeAddressSpaceBytes();
    if (free)
        return *free;
    reportFailure(337, "Error retrieving virtual memory information.");
    return ZebGetTotalSwapMemoryBytes() / s_FreeDivisor;
}

bool ZebSystemHasVirtualMemory()
{
    return ZebGetTotalSwapMemoryBytes() > 0;
}
