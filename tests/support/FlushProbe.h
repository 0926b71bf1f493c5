#pragma once

#include "io/ZebDataBlockWriteThread.h"
#include "support/StoreInside.h"

#include <QThread>
#include <QVector>

#include <atomic>
#include <functional>

/// Replaces the store's writers for the length of a scope and records the flushes that readers
/// request. The writers themselves continue with what was queued to them.
class FlushProbe
{
public:
    FlushProbe() : m_Writers(StoreInside::writers()), m_Before(m_Writers)
    {
        m_Writers = {&m_Writer};
    }
    ~FlushProbe() { m_Writers = m_Before; }
    FlushProbe(const FlushProbe&) = delete;
    FlushProbe& operator=(const FlushProbe&) = delete;

    /// What happens in each flush, by its number, from 1 on; set it before the first flush.
    void onFlush(std::function<void(int)> action) { m_Writer.m_OnFlush = std::move(action); }

    int flushes() const { return m_Writer.m_Flushes; }
    ZebDataHash* lastHash() const { return m_Writer.m_LastHash; }
    QThread* lastThread() const { return m_Writer.m_LastThread; }

private:
    class Writer : public ZebDataBlockWriteThread
    {
    public:
        Writer() : ZebDataBlockWriteThread(QString(), 1, nullptr) {}

        void run() override {}
        void flush() override {}
        void closeDown() override {}
        void flush(const ZebSmartPointer<ZebDataHash>& hash) override
        {
            m_LastHash = hash.data();
            m_LastThread = QThread::currentThread();
            const int number = ++m_Flushes;
            if (m_OnFlush)
                m_OnFlush(number);
        }

        std::atomic<int> m_Flushes{0};
        std::atomic<ZebDataHash*> m_LastHash{nullptr};
        std::atomic<QThread*> m_LastThread{nullptr};
        std::function<void(int)> m_OnFlush;
    };

    Writer m_Writer;
    QVector<ZebDataBlockWriteThread*>& m_Writers;
    QVector<ZebDataBlockWriteThread*> m_Before;
};
