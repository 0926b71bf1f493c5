#pragma once

#include "data/ZebDataReference.h"
#include "io/ZebDataBlockWriteThread.h"
#include "manager/ZebDataBlockManager.h"
#include "support/WaitUntil.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

/// Blocks one writer of the store until release(): it writes a small block whose file is a pipe
/// without a reader. What is queued to it meanwhile stays queued.
///
/// The small block stays resident and pinned, so it cannot be evicted.
class HeldWriter
{
public:
    HeldWriter()
    {
        static std::atomic<int> s_Count{0};
        const QByteArray bytes = "held writer " + QByteArray::number(++s_Count);
        const QString text = ZebDataHash(bytes, ZebDataHash::Hash512).toString();
        m_Path = QFile::encodeName(manager().getBlockDestination(QString(), text));
        QDir().mkpath(QFileInfo(QFile::decodeName(m_Path)).path());
        EXPECT_EQ(::mkfifo(m_Path.constData(), S_IRUSR | S_IWUSR), 0);
        m_Reference = manager().addBlock(bytes, ZebModifyAccessor::Cached, true);
        m_Accessor = std::make_unique<const ZebConstAccessor>(m_Reference.constAccessor());
        EXPECT_TRUE(waitUntil([] {
            for (const auto* const writer : manager().findChildren<ZebDataBlockWriteThread*>()) {
                if (writer->requestsInProgress() > 0)
                    return true;
            }
            return false;
        }));
    }

    ~HeldWriter()
    {
        release();
        manager().flush(false, ZebDataBlockManager::WriteThreads);
        ::close(m_Reader);
        ::unlink(m_Path.constData());
    }
    HeldWriter(const HeldWriter&) = delete;
    HeldWriter& operator=(const HeldWriter&) = delete;

    /// Lets the writer continue; any thread may call it, once.
    void release()
    {
        if (m_Reader < 0)
            m_Reader = ::open(m_Path.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        EXPECT_GE(m_Reader, 0);
    }

    const ZebDataReference& reference() const { return m_Reference; }

private:
    static ZebDataBlockManager& manager() { return ZebDataBlockManager::instance(); }

    QByteArray m_Path;
    // Stays open until the block is written: a pipe without a reader would end the process.
    int m_Reader = -1;
    ZebDataReference m_Reference;
    std::unique_ptr<const ZebConstAccessor> m_Accessor;
};
