#include "io/ZebWriteErrorForwarder.h"

#include <QMetaObject>
#include <QObject>
#include <QThread>

#include <utility>

ZebWriteErrorForwarder::ZebWriteErrorForwarder(QObject* receiver,
                                               std::function<void(const QString&)> deliver)
    : m_Receiver(receiver),
      m_Deliver(std::move(deliver)),
      m_Undelivered(std::make_shared<std::atomic<int>>(0))
{}

void ZebWriteErrorForwarder::operator()(const QString& message) const
{
    if (QThread::currentThread() == m_Receiver->thread()) {
        m_Deliver(message);
        return;
    }
    // Counts this error until its event ends, delivered or not; also when something here throws.
    m_Undelivered->fetch_add(1, std::memory_order_relaxed);
    const std::shared_ptr<void> counted(nullptr, [undelivered = m_Undelivered](std::nullptr_t) {
        undelivered->fetch_sub(1, std::memory_order_relaxed);
    });
    if (m_Undelivered->load(std::memory_order_relaxed) > s_MaxUndelivered)
        return;
    QMetaObject::invokeMethod(
        m_Receiver, [deliver = m_Deliver, counted, message] { deliver(message); },
        Qt::QueuedConnection);
}
