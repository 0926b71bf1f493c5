#pragma once

// What the tests of the collector share. For one source file of each program.

#include "hash/ZebHashManager.h"
#include "io/ZebGarbageCollectorThread.h"
#include "support/CollectedStore.h"
#include "support/WaitUntil.h"

#include <QElapsedTimer>
#include <QMutex>
#include <QReadWriteLock>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

ZEBTDX_ACCESS(CollectorExitTag, ZebGarbageCollectorThread,
              std::atomic<bool> ZebGarbageCollectorThread::*, m_Exit)
ZEBTDX_ACCESS(CollectorTimerTag, ZebGarbageCollectorThread,
              QElapsedTimer ZebGarbageCollectorThread::*, m_PassTimer)
ZEBTDX_ACCESS(CollectorLockTag, ZebGarbageCollectorThread,
              QReadWriteLock ZebGarbageCollectorThread::*, m_Lock)
ZEBTDX_ACCESS(RegistryMutexTag, ZebHashManager, QMutex ZebHashManager::*, m_Mutex)
// Where a timer keeps the second at which it was started.
ZEBTDX_ACCESS(TimerSecondsTag, QElapsedTimer, qint64 QElapsedTimer::*, t1)

// What no pass of a test finds.
constexpr qint64 s_UnlikelySize = 77;

/// A host that keeps what it is told, and may act on it.
class Reporter : public ZebDataBlockManager::ProgressReporter
{
public:
    void start(const QString&, int) override { FAIL() << "a collector does not start it"; }
    void finish() override { FAIL() << "a collector does not finish it"; }
    void update(int value, const QString& text) override
    {
        EXPECT_EQ(text, QString());
        m_Values.push_back(value);
        if (m_OnUpdate)
            m_OnUpdate(value);
    }

    std::vector<int> m_Values;
    std::function<void(int)> m_OnUpdate;
};

/// A collector of the test's own that is not started, on a root of its own, beside the store's.
class CollectorStation : public CollectedStore
{
protected:
    CollectorStation() : m_Collector(m_Root.path(), 10, nullptr) {}

    QString path(const QString& below) const
    {
        return m_Root.path() + QStringLiteral("/") + subCache() + QStringLiteral("/") + below;
    }

    // A file of 100 bytes, by its path below the sub-cache.
    QString write(const QString& below, int size = 100) const
    {
        BlockFiles::write(path(below), QByteArray(size, 'x'));
        return path(below);
    }

    // The file of a content that is held from here on.
    QString writeLive(const QString& bucket, int size)
    {
        m_Held.push_back(ZebHashManager::instance().getHash(
            "live " + QByteArray::number(static_cast<int>(m_Held.size()))));
        return write(bucket + QStringLiteral("/") + m_Held.back()->toString(), size);
    }

    QString writeDead(const QString& bucket)
    {
        return write(bucket + QStringLiteral("/") + deadName(++m_Dead));
    }

    // A pass, whatever has happened before.
    void pass(Reporter* reporter = nullptr, int* count = nullptr)
    {
        manager().startGarbageCollection();
        freeABlock();
        m_Collector.collect(reporter, count);
    }

    void setSizeFound(qint64 size) { m_Collector.*privateMember(CollectorSizeTag()) = size; }

    // Moves the end of the last pass back.
    void letSecondsGoBy(qint64 seconds)
    {
        (m_Collector.*privateMember(CollectorTimerTag())).*privateMember(TimerSecondsTag()) -=
            seconds;
    }

    // Makes a pass in a thread of its own, and holds it still where it begins to ask which files
    // are alive, for the length of `action`.
    void actBeforeJudgement(const std::function<void()>& action)
    {
        manager().startGarbageCollection();
        freeABlock();
        setSizeFound(s_UnlikelySize);
        QMutex& registry = ZebHashManager::instance().*privateMember(RegistryMutexTag());
        registry.lock();
        std::thread passing([this] { m_Collector.collect(nullptr, nullptr); });
        EXPECT_TRUE(waitUntil([this] { return CollectionInside::sizeFound(m_Collector) == 0; }));
        action();
        registry.unlock();
        passing.join();
    }

    // Switches the collection off from another thread, which may have to wait for a pass.
    std::thread stopElsewhere()
    {
        std::thread stopping([] { manager().stopGarbageCollection(); });
        EXPECT_TRUE(waitUntil([] { return !manager().garbageCollecting(); }));
        return stopping;
    }

    QTemporaryDir m_Root;
    ZebGarbageCollectorThread m_Collector;
    std::vector<ZebSmartPointer<ZebDataHash>> m_Held;
    int m_Dead = 0;
};
