#pragma once

#include "hash/ZebHashManager.h"
#include "io/ZebGarbageCollectorThread.h"
#include "support/BlockedThread.h"
#include "support/CollectedStore.h"
#include "support/CollectorInside.h"
#include "support/LockedRegistry.h"
#include "support/RecordingReporter.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <functional>
#include <vector>

/// A collector that belongs to the test and is not started, on a root that no other collector has.
class CollectorStation : public CollectedStore
{
protected:
    /// A size that no pass of a test finds.
    static constexpr qint64 s_UnlikelySize = 77;

    CollectorStation() : m_Collector(m_Root.path(), 10, nullptr) {}

    QString path(const QString& below) const
    {
        return m_Root.path() + QStringLiteral("/") + subCache() + QStringLiteral("/") + below;
    }

    /// Writes a file by its path below the sub-cache; returns its whole path.
    QString write(const QString& below, int sizeBytes = 100) const
    {
        BlockFiles::write(path(below), QByteArray(sizeBytes, 'x'));
        return path(below);
    }

    /// Writes the file of a hash that is held until the end of the test.
    QString writeLive(const QString& bucket, int sizeBytes)
    {
        m_Held.push_back(ZebHashManager::instance().getHash(
            "live " + QByteArray::number(static_cast<int>(m_Held.size()))));
        return write(bucket + QStringLiteral("/") + m_Held.back()->toString(), sizeBytes);
    }

    /// Writes an orphaned file.
    QString writeDead(const QString& bucket)
    {
        return write(bucket + QStringLiteral("/") + deadName(++m_Dead));
    }

    /// Makes a pass, which nothing can prevent.
    void pass(RecordingReporter* reporter = nullptr, int* count = nullptr)
    {
        manager().startGarbageCollection();
        freeABlock();
        m_Collector.collect(reporter, count);
    }

    qint64 sizeFound() { return CollectorInside::cacheSize(m_Collector).load(); }
    void setSizeFound(qint64 size) { CollectorInside::cacheSize(m_Collector) = size; }

    /// Moves the end of the last pass back.
    void letSecondsPass(qint64 seconds) { CollectorInside::letSecondsPass(m_Collector, seconds); }

    /// Makes a pass on another thread, and blocks it where it begins to look up which files are
    /// alive, until `action` has returned.
    void actBeforeSweep(const std::function<void()>& action)
    {
        manager().startGarbageCollection();
        freeABlock();
        LockedRegistry registry;
        BlockedThread passing([this] { m_Collector.collect(nullptr, nullptr); });
        EXPECT_TRUE(registry.blocks(passing));
        action();
        registry.unlock();
        EXPECT_TRUE(passing.ends());
    }

    QTemporaryDir m_Root;
    ZebGarbageCollectorThread m_Collector;
    std::vector<ZebSmartPointer<ZebDataHash>> m_Held;
    int m_Dead = 0;
};
