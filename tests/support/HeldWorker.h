#pragma once

#include "support/Pattern2Inside.h"
#include "support/WriterStation.h"

#include <QSemaphore>

#include <memory>
#include <string>

/// Holds the worker that has compressed the block of this name, until release(). Other blocks pass.
/// Make it before the station is started; its destructor releases the worker, too.
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

    /// Waits until the worker is held, and keeps the station's thread awake. False when the
    /// deadline passes first.
    bool isHeld()
    {
        return m_Station.waitFor([this] { return m_State->m_Held.available() > 0; });
    }

    /// Lets the worker continue, now and every time after. Any thread may call it.
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
