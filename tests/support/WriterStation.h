#pragma once

#include "data/ZebDataBlock.h"
#include "hash/ZebHashManager.h"
#include "io/ZebDataBlockWriteRequest.h"
#include "io/ZebDataBlockWriteThread_Pattern1.h"
#include "io/ZebDataBlockWriteThread_Pattern2.h"
#include "manager/ZebDataBlockManager.h"
#include "support/BlockFiles.h"
#include "support/MessageCapture.h"
#include "support/PrivateAccess.h"
#include "support/WaitUntil.h"
#include "support/Wakes.h"

#include <QReadLocker>
#include <QTemporaryDir>

#include <atomic>
#include <future>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using WriterList = ZebPriorityList<ZebDataBlockWriteRequest*>;

ZEBTDX_ACCESS(WriterListTag, ZebDataBlockWriteThread, WriterList ZebDataBlockWriteThread::*,
              m_Requests)
ZEBTDX_ACCESS(WriterLockTag, ZebDataBlockWriteThread, QReadWriteLock ZebDataBlockWriteThread::*,
              m_Lock)
ZEBTDX_ACCESS(WriterWaitMutexTag, ZebDataBlockWriteThread, QMutex ZebDataBlockWriteThread::*,
              m_WaitMutex)
ZEBTDX_ACCESS(WriterConditionTag, ZebDataBlockWriteThread,
              QWaitCondition ZebDataBlockWriteThread::*, m_WaitCondition)
ZEBTDX_ACCESS(BlockCachedMarkTag, ZebDataBlock, std::atomic<bool> ZebDataBlock::*, m_Cached)

/// A writer that works alone on a root of its own, for blocks whose names are their contents. It is
/// not started at first, so that its list can be looked at.
///
/// Its idle thread sees work without a wake only after a second; wait by waitFor(), which wakes it.
template <typename Writer>
class WriterStationOf
{
public:
    /// So many that no two of a test's blocks share a bucket.
    static constexpr int s_Buckets = 100000000;

    /// @param arguments what the writer wants beside root, buckets and parent
    template <typename... Arguments>
    explicit WriterStationOf(Arguments... arguments)
        : m_Writer(m_Directory.path(), s_Buckets, arguments..., nullptr)
    {
        // The store belongs to the thread that asks for it first; that must not be the writer. What
        // it says when it is built belongs to no test.
        ZebDataBlockManager::instance();
        m_Messages.clear();
    }
    ~WriterStationOf()
    {
        stop();
        // A writer leaves what is still queued.
        WriterList& list = m_Writer.*privateMember(WriterListTag());
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

    /// What waits: each entry as its priority and its name or "fence" and its number.
    std::vector<std::string> list()
    {
        const QReadLocker locker(&(m_Writer.*privateMember(WriterLockTag())));
        const WriterList& requests = m_Writer.*privateMember(WriterListTag());
        std::vector<std::string> entries;
        for (int i = 0; i < requests.size(); ++i) {
            ZebDataBlockWriteRequest& request = *requests.valueAt(i);
            const std::string what = request.isFence() ? "fence " + std::to_string(request.fence())
                                                       : nameOf(request.hash());
            entries.push_back(std::to_string(requests.priorityAt(i)) + " " + what);
        }
        return entries;
    }

    void start() { m_Writer.start(); }

    /// Wakes the thread as new work does.
    void wake() { (m_Writer.*privateMember(WriterConditionTag())).wakeAll(); }

    /// waitUntil(), with the thread kept awake.
    template <typename Condition>
    bool waitFor(Condition condition)
    {
        return waitUntil([&] {
            wake();
            return condition();
        });
    }

    /// Waits for a call on another thread.
    bool waitFor(const std::future<void>& call)
    {
        return waitFor([&] { return isReady(call); });
    }

    static bool isReady(const std::future<void>& call)
    {
        return call.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    }

    std::future<void> beginFlush(const std::string& name)
    {
        const ZebSmartPointer<ZebDataHash> wanted = hash(name);
        return std::async(std::launch::async, [this, wanted] { m_Writer.flush(wanted); });
    }

    std::future<void> beginFlush()
    {
        return std::async(std::launch::async, [this] { m_Writer.flush(); });
    }

    /// Waits until everything is written.
    bool drain() { return waitFor(beginFlush()); }

    /// Ends the thread, once it has worked its list off.
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
    bool actionWakes(Action action, int deadlineMs)
    {
        return wakes(m_Writer.*privateMember(WriterWaitMutexTag()),
                     m_Writer.*privateMember(WriterConditionTag()), action, deadlineMs);
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
    Writer m_Writer;
};

using WriterStation = WriterStationOf<ZebDataBlockWriteThread_Pattern1>;

/// A station whose writer has workers: how many, its constructor takes.
using Pattern2Station = WriterStationOf<ZebDataBlockWriteThread_Pattern2>;

/// Keeps a station's thread awake for the length of a scope.
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
