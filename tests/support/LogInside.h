#pragma once

#include "support/PrivateAccess.h"
#include "support/ZebTdxLog.h"

#include <QFile>
#include <QMutex>

#include <atomic>

ZEBTDX_ACCESS(LogInsideFile, ZebTdxLog, QFile ZebTdxLog::*, m_File)
ZEBTDX_ACCESS(LogInsideMutex, ZebTdxLog, QMutex ZebTdxLog::*, m_Mutex)
ZEBTDX_ACCESS(LogInsideDead, ZebTdxLog, std::atomic<bool>*, s_Dead)

/// The private members of ZebTdxLog.
namespace LogInside {

inline QFile& file(ZebTdxLog& object)
{
    return object.*privateMember(LogInsideFile());
}

inline QMutex& mutex(ZebTdxLog& object)
{
    return object.*privateMember(LogInsideMutex());
}

/// Whether the process's log has ended.
inline std::atomic<bool>& dead()
{
    return *privateMember(LogInsideDead());
}

} // namespace LogInside
