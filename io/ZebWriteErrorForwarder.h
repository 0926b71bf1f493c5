#pragma once

// Internal: how the errors of a writer reach the store's signal. Not installed.

#include <QString>

#include <atomic>
#include <functional>
#include <memory>

class QObject;

/// Passes the errors of one writer to the thread of a receiver. A slot on the writer's signal for a
/// direct connection: while a disk fails, the writer emits without a pause, and a queued connection
/// would take memory until the receiver's thread handles events.
///
/// Thread safety: the writer's thread calls it. Events may outlive the writer, and are dropped with
/// the receiver.
class ZebWriteErrorForwarder
{
public:
    /// How many errors may wait for the receiver's thread; further ones are dropped.
    static constexpr int s_MaxUndelivered = 1000;

    /// @param deliver called for each error on the thread of `receiver`, which outlives the writer
    ZebWriteErrorForwarder(QObject* receiver, std::function<void(const QString&)> deliver);

    /// Delivers at once on the receiver's thread, otherwise through its event loop.
    void operator()(const QString& message) const;

private:
    QObject* m_Receiver;
    std::function<void(const QString&)> m_Deliver;

    // Shared with the events. Only its value counts, so its changes are relaxed.
    std::shared_ptr<std::atomic<int>> m_Undelivered;
};
