#pragma once

#include "reads/StressPause.h"
#include "reads/StressRole.h"

#include <QObject>

/// What must hold while all threads of the stress stand still.
class QuietChecks
{
public:
    QuietChecks(StressShared& shared, StressPause& pause, StressActivity& activity, int workers);
    ~QuietChecks() { QObject::disconnect(m_Connection); }
    QuietChecks(const QuietChecks&) = delete;
    QuietChecks& operator=(const QuietChecks&) = delete;

    /// Counts, sums, references, bytes.
    void checkCounts();

    /// The flag of the host and its signal.
    void checkFlag();

    /// Has threads use blocks in an order that only their hand-over makes, while other blocks are
    /// evicted, and compares that order with the order of eviction.
    void checkOrder(quint32 seed);

private:
    void evictAll();
    static void evictNext();

    StressShared& m_Shared;
    StressPause& m_Pause;
    StressActivity& m_Activity;
    int m_Workers;
    // Counts the signals. Emitted with the delete lock held.
    int m_Signals = 0;
    bool m_LastSignal;
    QMetaObject::Connection m_Connection;
};
