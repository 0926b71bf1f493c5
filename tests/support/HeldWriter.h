#pragma once

#include "data/ZebDataReference.h"
#include "manager/ZebDataBlockManager.h"
#include "support/WaitUntil.h"

#include <QByteArray>
#include <QDir>
#include <QSemaphore>
#include <QString>
#include <QtGlobal>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>

/// Blocks one writer of the store until release(): a folder is in the place of a small block's
/// file, and the message handler blocks in the message about it, which no capture sees. What is
/// queued to the writer meanwhile stays queued. The small block is written in a second attempt.
///
/// The small block stays resident and pinned, so it cannot be evicted. A message handler that is
/// installed later must be removed earlier.
class HeldWriter
{
public:
    HeldWriter()
    {
        static std::atomic<int> s_Count{0};
        const QByteArray bytes = "held writer " + QByteArray::number(++s_Count);
        m_Name = ZebDataHash(bytes, ZebDataHash::Hash512).toString();
        m_Path = manager().getBlockDestination(QString(), m_Name);
        EXPECT_TRUE(QDir().mkpath(m_Path));
        EXPECT_EQ(s_Current.load(), nullptr);
        s_Current = this;
        m_Previous = qInstallMessageHandler(&HeldWriter::handle);
        m_Reference = manager().addBlock(bytes, ZebModifyAccessor::Cached, true);
        m_Accessor = std::make_unique<const ZebConstAccessor>(m_Reference.constAccessor());
        EXPECT_TRUE(waitUntil([this] { return m_Held.available() > 0; }));
    }

    ~HeldWriter()
    {
        release();
        manager().flush(false, ZebDataBlockManager::WriteThreads);
        qInstallMessageHandler(m_Previous);
        s_Current = nullptr;
    }
    HeldWriter(const HeldWriter&) = delete;
    HeldWriter& operator=(const HeldWriter&) = delete;

    /// Lets the writer continue; any thread may call it, once.
    void release()
    {
        if (m_IsReleased.exchange(true))
            return;
        EXPECT_TRUE(QDir().rmdir(m_Path));
        m_GoOn.release();
    }

    const ZebDataReference& reference() const { return m_Reference; }

private:
    static ZebDataBlockManager& manager() { return ZebDataBlockManager::instance(); }

    static void handle(QtMsgType type, const QMessageLogContext& context, const QString& text)
    {
        HeldWriter& held = *s_Current;
        if (text.startsWith(QStringLiteral("Cannot Open File ")) && text.contains(held.m_Name)) {
            held.m_Held.release();
            held.m_GoOn.acquire();
            return;
        }
        // Another thread may log while the constructor still installs this handler.
        if (const QtMessageHandler previous = held.m_Previous)
            previous(type, context, text);
    }

    inline static std::atomic<HeldWriter*> s_Current{nullptr};

    QString m_Name;
    QString m_Path;
    std::atomic<QtMessageHandler> m_Previous{nullptr};
    QSemaphore m_Held;
    QSemaphore m_GoOn;
    std::atomic<bool> m_IsReleased{false};
    ZebDataReference m_Reference;
    std::unique_ptr<const ZebConstAccessor> m_Accessor;
};
