#include "support/MessageCapture.h"

#include <QMutexLocker>

#include <algorithm>
#include <cstdio>

MessageCapture* MessageCapture::s_Current = nullptr;
QMutex MessageCapture::s_CurrentMutex;

MessageCapture::MessageCapture()
{
    const QMutexLocker locker(&s_CurrentMutex);
    m_Outer = s_Current;
    s_Current = this;
    m_Previous = qInstallMessageHandler(&MessageCapture::handle);
}

MessageCapture::~MessageCapture()
{
    const QMutexLocker locker(&s_CurrentMutex);
    qInstallMessageHandler(m_Previous);
    s_Current = m_Outer;
}

void MessageCapture::handle(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    if (type == QtFatalMsg) {
        // The process ends, and the parent of a death test reads the words from standard error.
        std::fprintf(stderr, "{fatal:%s}\n", text.toLocal8Bit().constData());
        std::fflush(stderr);
        return;
    }
    const QMutexLocker currentLocker(&s_CurrentMutex);
    if (s_Current == nullptr)
        return;
    const bool hasContext = context.file != nullptr || context.line != 0 ||
                            context.function != nullptr || context.category != nullptr;
    const QMutexLocker locker(&s_Current->m_Mutex);
    s_Current->m_Messages.append({type, text, hasContext});
}

QList<MessageCapture::Message> MessageCapture::messages() const
{
    const QMutexLocker locker(&m_Mutex);
    QList<Message> copy = m_Messages;
    // The copy must not share its nodes with the thread that logs next.
    copy.detach();
    return copy;
}

QStringList MessageCapture::debugLines() const
{
    // The list is shared with the thread that logs next, so the lock is held for the whole walk.
    const QMutexLocker locker(&m_Mutex);
    QStringList lines;
    for (const Message& message : qAsConst(m_Messages)) {
        if (message.m_Type == QtDebugMsg)
            lines.append(message.m_Text);
    }
    return lines;
}

int MessageCapture::count(const QString& text) const
{
    const QMutexLocker locker(&m_Mutex);
    return static_cast<int>(
        std::count_if(m_Messages.cbegin(), m_Messages.cend(), [&](const Message& message) {
            return message.m_Type == QtDebugMsg && message.m_Text == text;
        }));
}

void MessageCapture::clear()
{
    const QMutexLocker locker(&m_Mutex);
    m_Messages.clear();
}
