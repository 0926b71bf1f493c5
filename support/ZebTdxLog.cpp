#include "support/ZebTdxLog.h"

#include "support/ZebMutexLocker.h"
#include "support/ZebRegularFile.h"
#include "support/ZebTdxMessage.h"

#include <QDebug>
#include <QDir>
#include <QMessageLogger>
#include <QTextStream>
#include <QTime>

#include <fcntl.h>
#include <unistd.h>

std::atomic<bool> ZebTdxLog::s_Dead{false};

namespace {

QString tagOf(ZebTdxLog::Level level)
{
    switch (level) {
    case ZebTdxLog::Info:
        return QStringLiteral("[ I ] ");
    case ZebTdxLog::Warning:
        return QStringLiteral("[ W ] ");
    case ZebTdxLog::Fatal:
        return QStringLiteral("[ F ] ");
    }
    return {};
}

} // namespace

ZebTdxLog::ZebTdxLog() : m_Enabled(true) {}

ZebTdxLog::~ZebTdxLog()
{
    m_Enabled.store(false, std::memory_order_relaxed);
    s_Dead.store(true, std::memory_order_relaxed);
}

ZebTdxLog& ZebTdxLog::instance()
{
    static ZebTdxLog log;
    return log;
}

bool ZebTdxLog::enabled() const
{
    return m_Enabled.load(std::memory_order_relaxed);
}

void ZebTdxLog::setEnabled(bool enabled)
{
    // The store ends after the log, and disables it.
    if (s_Dead.load(std::memory_order_relaxed))
        return;
    m_Enabled.store(enabled, std::memory_order_relaxed);
}

// Not analysed: no other thread logs meanwhile, so it takes no lock.
bool ZebTdxLog::setSubCache(const QString& path) ZEBTDX_NO_THREAD_SAFETY_ANALYSIS
{
    if (s_Dead.load(std::memory_order_relaxed) || !enabled())
        return true;
    if (m_File.isOpen()) {
        m_File.flush();
        m_File.close();
    }
    if (path.isEmpty())
        return true;
    if (!QDir(path).exists() && !QDir().mkpath(path)) {
        ZebTdxMessage::debug(QStringLiteral(
            "[ !! ] Subcache Directory does not exist and cannot be created for logging"));
        return false;
    }
    m_File.setFileName(path + QStringLiteral("/TdxLog.txt"));
    QString error;
    const int descriptor =
        ZebRegularFile::open(m_File.fileName(), O_WRONLY | O_APPEND | O_CREAT, &error);
    if (descriptor < 0 || !m_File.open(descriptor, QIODevice::Append | QIODevice::Text,
                                       QFileDevice::AutoCloseHandle)) {
        if (descriptor >= 0)
            ::close(descriptor);
        ZebTdxMessage::debug(QStringLiteral("[ !! ] Cannot Open TDx Log ") + m_File.fileName());
        return false;
    }
    return true;
}

bool ZebTdxLog::log(Level level, const char* file, int line, const QString& message)
{
    if (s_Dead.load(std::memory_order_relaxed) || !enabled())
        return true;
    const QString tag = tagOf(level);
    QString time;
    {
        const ZebMutexLocker locker(&m_Mutex);
        if (!m_File.isOpen())
            return true;
        time = QTime::currentTime().toString(Qt::TextDate);
        {
            QTextStream stream(&m_File);
            stream << tag << time << ' ' << message << " - " << file << ':' << line << '\n';
            stream.flush();
        }
        // The device is flushed as well: a crash must not lose more than the line in progress.
        m_File.flush();
    }
    // The host's message handler runs with no lock held, so it may log, or wait for a thread that
    // does.
    QMessageLogger().debug() << tag << time << ' ' << message << " - " << file << ':' << line
                             << Qt::endl;
    if (level == Fatal)
        ZebTdxMessage::fatal(QStringLiteral("TDX FATAL Error, aborting"));
    return true;
}
