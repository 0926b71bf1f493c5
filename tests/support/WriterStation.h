#pragma once

#include "data/ZebDataBlock.h"
#include "hash/ZebHashManager.h"
#include "io/ZebDataBlockWriteRequest.h"
#include "io/ZebDataBlockWriteThread_Pattern1.h"
#include "io/ZebDataBlockWriteThread_Pattern2.h"
#include "manager/ZebDataBlockManager.h"
#include "support/BlockFiles.h"
#include "support/BlockedThread.h"
#include "support/MessageCapture.h"
#include "support/Pattern2Inside.h"
#include "support/StartedThread.h"
#include "support/WaitUntil.h"
#include "support/Wakes.h"
#include "support/WriterInside.h"

#include <QMutexLocker>
#include <QReadLocker>
#include <QTemporaryDir>
#include <QWriteLocker>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <sys/syscall.h>

/// A writer on a root of its own, without a store, for blocks whose names are their bytes. It is
/// not started at first, so that a test can look at its list.
///
/// An idle writer that is not woken sees new work only after a second, so tests wait with
/// waitFor(), which wakes it.
template <typename Writer>
class WriterStationOf
{
public:
    /// So many that no two of a test's blocks share a bucket.
    static constexpr int s_Buckets = 100000000;

    /// A call of flush() on a thread of its own.
    using Flush = std::unique_ptr<BlockedThread>;

    /// @param arguments what the writer's constructor takes between the buckets and the parent
    template <typename... Arguments>
    explicit WriterStationOf(Arguments... arguments)
        : m_Writer(m_Directory.path(), s_Buckets, arguments..., nullptr)
    {
        // The store belongs to the thread that asks for it first; that must not be the writer. Its
        // messages are of no interest.
        ZebDataBlockManager::instance();
        m_Messages.clear();
    }
    ~WriterStationOf()
    {
        stop();
        // A writer does not delete what is still queued.
        WriterInsideList& list = WriterInside::requests(m_Writer);
        while (!list.isEmpty())
            delete list.takeFirst();
    }
    WriterStationOf(const WriterStationOf&) = delete;
    WriterStationOf& operator=(const WriterStationOf&) = delete;

    Writer& writer() { return m_Writer; }
    MessageCapture& messages() { return m_Messages; }
    QString root() const { return m_Directory.path(); }

    const ZebSmartPointer<ZebDataHash>& hash(const std::string& name) { return work(name).m_Hash; }
    ZebDataBlock& block(const std::string& name) { return work(name).m_Block; }

    QString file(const std::string& name)
    {
        return BlockFiles::pathOf(*hash(name), root(), m_Writer.subCache(), s_Buckets);
    }
    bool hasFile(const std::string& name) { return QFile::exists(file(name)); }

    /// The directory of a block's file: as long as a plain file lies there, its writes fail.
    QString bucket(const std::string& name)
    {
        return BlockFiles::bucketOf(*hash(name), root(), m_Writer.subCache(), s_Buckets);
    }

    /// Queues the block of this name, which stays the station's.
    void queue(const std::string& name, int priority = ZebDataBlockManager::PreloadNormal)
    {
        m_Writer.writeBlock(static_cast<ZebDataBlockManager::PreloadPriority>(priority), hash(name),
                            &block(name), false);
    }

    /// The waiting requests, each as its priority and its name or "fence" and its number.
    std::vector<std::string> list()
    {
        const QReadLocker locker(&WriterInside::lock(m_Writer));
        const WriterInsideList& requests = WriterInside::requests(m_Writer);
        std::vector<std::string> entries;
        for (int i = 0; i < requests.size(); ++i) {
            ZebDataBlockWriteRequest& request = *requests.valueAt(i);
            const std::string what = request.isFence() ? "fence " + std::to_string(request.fence())
                                                       : nameOf(request.hash());
            entries.push_back(std::to_string(requests.priorityAt(i)) + " " + what);
        }
        return entries;
    }

    /// Waits until the list has this length, without waking the writer.
    bool hasEntries(size_t count)
    {
        return waitUntil([&] { return list().size() == count; });
    }

    /// Calls `action` with what guards the fences held.
    template <typename Action>
    auto withFences(Action action)
    {
        const auto locker = lockFences(m_Writer);
        return action();
    }

    int nextFence()
    {
        return withFences([this] { return WriterInside::nextFenceId(m_Writer); });
    }
    QSet<int> fencesReached()
    {
        return withFences([this] { return WriterInside::fencesReached(m_Writer); });
    }
    QVector<int> freeFences()
    {
        return withFences([this] { return WriterInside::freeFenceIds(m_Writer); });
    }

    /// Calls `action` on the writer's thread for each failed attempt to write, with the number of
    /// failures so far, this one included, and the text of the failure.
    void onEachFailure(std::function<void(int, const QString&)> action)
    {
        auto failures = std::make_shared<int>(0);
        QObject::connect(&m_Writer, &ZebDataBlockWriteThread::writeError,
                         [failures, action = std::move(action)](const QString& text) {
                             action(++*failures, text);
                         });
    }

    void start() { m_Writer.start(); }

    /// Wakes the thread as new work does.
    void wake() { WriterInside::waitCondition(m_Writer).wakeAll(); }

    /// waitUntil() that keeps the thread awake.
    template <typename Condition>
    bool waitFor(Condition condition)
    {
        return waitUntil([&] {
            wake();
            return condition();
        });
    }

    /// Waits until a flush has returned, and keeps the thread awake.
    bool waitFor(const Flush& flush)
    {
        return waitFor([&] { return flush->hasEnded(); });
    }

    Flush beginFlush(const std::string& name)
    {
        return std::make_unique<BlockedThread>(
            [this, wanted = hash(name)] { m_Writer.flush(wanted); });
    }

    Flush beginFlush()
    {
        return std::make_unique<BlockedThread>([this] { m_Writer.flush(); });
    }

    /// Whether the flush of a hash waits. It has been seen asleep in its wait, or it has returned.
    bool waitsForFence(const Flush& flush) { return waitsAtFence(m_Writer, *flush); }

    /// waitsForFence() for the flush of everything.
    bool waitsForTheEnd(const Flush& flush) { return waitsForDrain(m_Writer, *flush); }

    /// Waits until everything is written.
    bool drain() { return waitFor(beginFlush()); }

    /// The thread of the started writer.
    ThreadWatch watch() const { return m_Thread.watch(); }

    /// Ends the thread once its list is empty.
    void stop()
    {
        if (!m_Writer.isRunning())
            return;
        m_Writer.closeDown();
        EXPECT_TRUE(waitFor([this] { return m_Writer.isFinished(); }));
        m_Writer.wait();
    }

    /// Whether `action` wakes an idle writer. Not for a started one.
    template <typename Action>
    bool actionWakes(Action action)
    {
        return wakes(WriterInside::waitMutex(m_Writer), WriterInside::waitCondition(m_Writer),
                     action);
    }

private:
    struct Work
    {
        explicit Work(const std::string& name)
            : m_Hash(ZebHashManager::instance().getHash(QByteArray::fromStdString(name))),
              m_Block(QByteArray::fromStdString(name))
        {}
        ZebSmartPointer<ZebDataHash> m_Hash;
        ZebDataBlock m_Block;
    };

    static std::unique_ptr<QWriteLocker> lockFences(ZebDataBlockWriteThread_Pattern1& writer)
    {
        return std::make_unique<QWriteLocker>(&WriterInside::lock(writer));
    }
    static std::unique_ptr<QMutexLocker> lockFences(ZebDataBlockWriteThread_Pattern2& writer)
    {
        return std::make_unique<QMutexLocker>(&Pattern2Inside::fenceMutex(writer));
    }

    // The writer without workers lets its callers poll.
    static bool polls(const BlockedThread& flush)
    {
        EXPECT_TRUE(pollUntil(
            [&] { return flush.hasEnded() || flush.watch().isInCall(SYS_clock_nanosleep); }));
        return !flush.hasEnded();
    }
    static bool waitsAtFence(ZebDataBlockWriteThread_Pattern1&, const BlockedThread& flush)
    {
        return polls(flush);
    }
    static bool waitsForDrain(ZebDataBlockWriteThread_Pattern1&, const BlockedThread& flush)
    {
        return polls(flush);
    }
    static bool waitsAtFence(ZebDataBlockWriteThread_Pattern2& writer, const BlockedThread& flush)
    {
        return flush.waitsFor(Pattern2Inside::fenceCondition(writer));
    }
    static bool waitsForDrain(ZebDataBlockWriteThread_Pattern2& writer, const BlockedThread& flush)
    {
        return flush.waitsFor(Pattern2Inside::flushCondition(writer));
    }

    Work& work(const std::string& name) { return m_Work.try_emplace(name, name).first->second; }

    std::string nameOf(const ZebSmartPointer<ZebDataHash>& hash) const
    {
        for (const auto& [name, work] : m_Work) {
            if (work.m_Hash == hash)
                return name;
        }
        return "unknown";
    }

    MessageCapture m_Messages;
    QTemporaryDir m_Directory;
    std::map<std::string, Work> m_Work;
    StartedThread m_Thread{"TDX Write"};
    Writer m_Writer;
};

using WriterStation = WriterStationOf<ZebDataBlockWriteThread_Pattern1>;

/// A station whose writer has workers; the constructor takes their number.
using Pattern2Station = WriterStationOf<ZebDataBlockWriteThread_Pattern2>;

/// Keeps a station's thread awake for the duration of a scope.
template <typename Station>
class SleeplessWriter
{
public:
    explicit SleeplessWriter(Station& station)
        : m_Thread([this, &station] {
              while (!m_End) {
                  station.wake();
                  QThread::usleep(100);
              }
          })
    {}
    ~SleeplessWriter()
    {
        m_End = true;
        m_Thread.join();
    }
    SleeplessWriter(const SleeplessWriter&) = delete;
    SleeplessWriter& operator=(const SleeplessWriter&) = delete;

private:
    std::atomic<bool> m_End{false};
    std::thread m_Thread;
};
