#pragma once

#include <QList>
#include <QMutex>
#include <QString>
#include <QStringList>
#include <QtGlobal>

/// Captures every message of Qt's handler while it exists, with type and text, and keeps it off the
/// terminal. The destructor restores the previous handler. Captures nest; the innermost capture
/// gets the messages.
///
/// Thread safety: any thread may log, and any thread may call the read-outs meanwhile.
class MessageCapture
{
public:
    struct Message
    {
        QtMsgType m_Type;
        QString m_Text;
        /// Whether the message came with a file, a line, a function or a category.
        bool m_HasContext;
    };

    MessageCapture();
    ~MessageCapture();
    MessageCapture(const MessageCapture&) = delete;
    MessageCapture& operator=(const MessageCapture&) = delete;

    /// All messages so far.
    QList<Message> messages() const;

    /// The texts of all debug messages so far, in order.
    QStringList debugLines() const;

    /// How many debug messages have exactly this text.
    int count(const QString& text) const;

    bool contains(const QString& text) const { return count(text) > 0; }

    /// Drops all messages so far.
    void clear();

private:
    static void handle(QtMsgType type, const QMessageLogContext& context, const QString& text);

    mutable QMutex m_Mutex;
    QList<Message> m_Messages;
    QtMessageHandler m_Previous;
    MessageCapture* m_Outer;

    static MessageCapture* s_Current;
    static QMutex s_CurrentMutex;
};
