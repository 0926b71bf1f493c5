#pragma once

#include "manager/ZebMemoryStatus.h"
#include "support/MessageCapture.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QString>
#include <QTemporaryDir>

#include <gtest/gtest.h>

/// Replaces the machine's memory figures for the length of a scope, so that tests about free memory
/// pass on every machine.
///
/// The replacement of /proc/meminfo has a total and no line for free memory. The library then
/// estimates free memory as a fifth of the total, and logs a line for each measurement. So this
/// class writes five times the wanted figure as the total, and measures() counts those lines.
///
/// Construct it before the store and destroy it after the store: no other thread may read the
/// figures while they are replaced.
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

    /// Sets the free memory that the next measurement finds; a multiple of 1024.
    void setFree(qint64 bytes)
    {
        EXPECT_EQ(bytes % 1024, 0);
        QFile file(m_Root.path() + QStringLiteral("/proc/meminfo"));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        const qint64 totalKb = bytes / 1024 * s_EstimatedPart;
        const QByteArray text =
            "MemTotal: " + QByteArray::number(totalKb) + " kB\nSwapTotal: 1024 kB\n";
        EXPECT_EQ(file.write(text), text.size());
    }

    /// How many times free memory was measured while `messages` captured.
    static int measures(const MessageCapture& messages)
    {
        return messages.count(
            QStringLiteral("ZebSystemMemory.cpp:232:[ !! ] Error retrieving memory information."));
    }

private:
    // Without a line for free memory, one part in this many of the total counts as free.
    static constexpr qint64 s_EstimatedPart = 5;

    QTemporaryDir m_Root;
};
