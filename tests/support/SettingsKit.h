#pragma once

#include "manager/ZebMemoryStatus.h"
#include "support/Manager.h"
#include "support/MessageCapture.h"
#include "support/StoreInside.h"

#include <QDir>
#include <QFile>
#include <QString>
#include <QTemporaryDir>

#include <gtest/gtest.h>

/// The memory of a machine that a test makes up, for the length of a scope.
class Machine
{
public:
    Machine(qint64 totalKb, qint64 swapKb)
    {
        ZebMemoryStatus::setSourceRoot(m_Directory.path());
        QDir(m_Directory.path()).mkpath(QStringLiteral("proc"));
        QFile file(m_Directory.path() + QStringLiteral("/proc/meminfo"));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write("MemTotal: " + QByteArray::number(totalKb) +
                   " kB\nSwapTotal: " + QByteArray::number(swapKb) + " kB\n");
    }
    ~Machine() { ZebMemoryStatus::setSourceRoot(QString()); }

private:
    QTemporaryDir m_Directory;
};

/// A line of the log.
inline QString line(const char* text)
{
    return QString::fromLatin1(text);
}

/// The lines that setters and setup() log about a limit.
inline QString sizeLine(qint64 bytes, qint64 megabytes)
{
    return QStringLiteral("[TDX] Max data cache size    = %1 bytes (%2 MB)")
        .arg(bytes)
        .arg(megabytes);
}

inline QString pendingLine(qint64 bytes, qint64 megabytes)
{
    return QStringLiteral("[TDX] Max write pending size = %1 bytes (%2 MB)")
        .arg(bytes)
        .arg(megabytes);
}

inline QString targetLine(qint64 bytes, qint64 megabytes)
{
    return QStringLiteral("[TDX] Target Free Memory = %1 bytes (%2 MB)").arg(bytes).arg(megabytes);
}

/// Restores the settings that outlive a clean-up, at the end of a scope.
class KeptSettings
{
public:
    KeptSettings()
        : m_Size(manager().maxDataCacheSize()),
          m_Factor(manager().maxWritePendingSizeFactor()),
          m_Target(manager().targetFreeMemorySize())
    {}
    ~KeptSettings()
    {
        manager().setMaxDataCacheSize(m_Size);
        manager().setMaxWritePendingSizeFactor(m_Factor);
        manager().setTargetFreeMemorySize(m_Target);
    }

private:
    MessageCapture m_Messages;
    qint64 m_Size;
    float m_Factor;
    qint64 m_Target;
};
