#pragma once

#include "io/ZebDataBlockCompressionThread.h"
#include "io/ZebDataBlockWriteRequest.h"
#include "io/ZebDataBlockWriteThread_Pattern2.h"
#include "support/PrivateAccess.h"
#include "support/WaitUntil.h"
#include "support/WriterStation.h"

#include <QMutexLocker>
#include <QObject>
#include <QQueue>
#include <QSemaphore>
#include <QVector>

#include <gtest/gtest.h>

#include <memory>
#include <string>

using RequestQueue = QQueue<ZebDataBlockWriteRequest*>;
using Pattern2WorkersMember =
    QVector<ZebDataBlockCompressionThread*> ZebDataBlockWriteThread_Pattern2::*;

ZEBTDX_ACCESS(Pattern2WorkersTag, ZebDataBlockWriteThread_Pattern2, Pattern2WorkersMember,
              m_CompressionThreads)
ZEBTDX_ACCESS(Pattern2QueueTag, ZebDataBlockWriteThread_Pattern2,
              RequestQueue ZebDataBlockWriteThread_Pattern2::*, m_CompressionQueue)
ZEBTDX_ACCESS(Pattern2QueueMutexTag, ZebDataBlockWriteThread_Pattern2,
              QMutex ZebDataBlockWriteThread_Pattern2::*, m_CompressionQueueMutex)
ZEBTDX_ACCESS(Pattern2QueueConditionTag, ZebDataBlockWriteThread_Pattern2,
              QWaitCondition ZebDataBlockWriteThread_Pattern2::*, m_CompressionCondition)

/// What a writer with workers keeps to itself, for tests that must see it.
namespace Pattern2Inside {

inline const QVector<ZebDataBlockCompressionThread*>&
workers(ZebDataBlockWriteThread_Pattern2& writer)
{
    return writer.*privateMember(Pattern2WorkersTag());
}

/// How many requests lie in the queue for the workers.
inline int queued(ZebDataBlockWriteThread_Pattern2& writer)
{
    const QMutexLocker locker(&(writer.*privateMember(Pattern2QueueMutexTag())));
    return (writer.*privateMember(Pattern2QueueTag())).size();
}

/// How many workers of the process are free.
inline int freeWorkers()
{
    return ZebDataBlockCompressionThread::AvailableThreads.available();
}

inline bool workersAreFree(int count)
{
    return waitUntil([count] { return freeWorkers() == count; });
}

/// A worker for the queue of a writer that was made without one.
inline ZebDataBlockCompressionThread* makeWorker(ZebDataBlockWriteThread_Pattern2& writer)
{
    auto* const worker =
        new ZebDataBlockCompressionThread(&(writer.*privateMember(Pattern2QueueConditionTag())),
                                          &(writer.*privateMember(Pattern2QueueMutexTag())),
                                          &(writer.*privateMember(Pattern2QueueTag())), nullptr);
    QObject::connect(worker, &ZebDataBlockCompressionThread::compressed, &writer,
                     &ZebDataBlockWriteThread_Pattern2::pushWrite, Qt::DirectConnection);
    return worker;
}

} // namespace Pattern2Inside

/// Holds the worker that has the block of this name, its payload made, until release(). Other
/// blocks pass. Made before the station is started; its end releases, too.
class HeldWorker
{
public:
    HeldWorker(Pattern2Station& station, const std::string& name) : m_Station(station)
    {
        ZebDataBlockWriteThread_Pattern2* const writer = &station.writer();
        const ZebDataHash* const hash = station.hash(name).data();
        // Shared with the connections, which last as long as the workers.
        const auto pass = [state = m_State, writer, hash](ZebDataBlockWriteRequest* request) {
            if (request->hash().data() == hash) {
                state->m_Held.release();
                state->m_GoOn.acquire();
            }
            writer->pushWrite(request);
        };
        for (ZebDataBlockCompressionThread* const worker : Pattern2Inside::workers(*writer)) {
            QObject::disconnect(worker, &ZebDataBlockCompressionThread::compressed, writer,
                                nullptr);
            QObject::connect(worker, &ZebDataBlockCompressionThread::compressed, writer, pass,
                             Qt::DirectConnection);
        }
    }
    ~HeldWorker() { release(); }
    HeldWorker(const HeldWorker&) = delete;
    HeldWorker& operator=(const HeldWorker&) = delete;

    /// Whether the worker is held within the deadline; the station's thread is kept awake
    /// meanwhile.
    bool isHeld()
    {
        return m_Station.waitFor([this] { return m_State->m_Held.available() > 0; });
    }

    /// Lets it go on, now and every time after; any thread may call it.
    void release() { m_State->m_GoOn.release(s_EveryTime); }

private:
    static constexpr int s_EveryTime = 1000000;

    struct State
    {
        QSemaphore m_Held;
        QSemaphore m_GoOn;
    };

    Pattern2Station& m_Station;
    std::shared_ptr<State> m_State = std::make_shared<State>();
};
