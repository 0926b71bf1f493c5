#pragma once

#include "manager/ZebMemoryStatus.h"
#include "support/MessageCapture.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QString>
#include <QTemporaryDir>

#include <gtest/gtest.h>

/// The memory of a made-up machine for the length of a scope, so that what a test says about free
/// memory holds on every machine.
///
/// The free memory is given as a fifth of the total, with its own figure left out: the probe then
/// takes its guess, which is exact here, and prints a line. So every measure can be counted.
///
/// Make it before the store and end it after: no other thread may be about at both moments.
class FakeMemory
{
public:
    static constexpr qint64 s_Plenty = qint64(64) * 1024 * 1024 * 1024;

    explicit FakeMemory(qint64 freeBytes = s_Plenty)
    {
        QDir(m_Root.path()).mkpath(QStringLiteral("proc"));
        setFree(freeBytes);
        ZebMemoryStatus::setSourceRoot(m_Root.path());
    }
    ~FakeMemory() { ZebMemoryStatus::setSourceRoot(QString()); }
    FakeMemory(const FakeMemory&) = delete;
    FakeMemory& operator=(const FakeMemory&) = delete;

    /// What the next measure gives; a multiple of 1024.
    void setFree(qint64 bytes)
    {
        EXPECT_EQ(bytes % 1024, 0);
        QFile file(m_Root.path() + QStringLiteral("/proc/meminfo"));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        const QByteArray text =
            "MemTotal: " + QByteArray::number(bytes / 1024 * 5) + " kB\nSwapTotal: 1024 kB\n";
        EXPECT_EQ(file.write(text), text.size());
    }

    /// How many times free memory was measured while `messages` listened.
    static int measures(const MessageCapture& messages)
    {
        return messages.count(
            QStringLiteral("ZebSystemMemory.cpp:232:[ !! ] Error retrieving memory information."));
    }

private:
    QTemporaryDir m_Root;
};
