#pragma once

#include "support/ZebTdxExport.h"

#include <QFile>
#include <QMutex>
#include <QString>

#include <atomic>

/// A small process-wide log for the host, one text file inside the current sub-cache directory.
///
/// The library's own components write their debug lines straight to Qt's message handler. Only the
/// block manager touches this class, to point it at a directory and to turn it off at the end.
///
/// States: disabled, or dead after its own destruction: every operation is a silent success.
/// Enabled with no file: nothing is written. Enabled with a file: lines are appended, also to the
/// file of an earlier run.
///
/// Thread safety: any thread may call log(). setSubCache() belongs to the controlling thread, with
/// no line being written meanwhile.
class ZEBTDX_EXPORT ZebTdxLog
{
public:
    enum Level : int
    {
        Info = 0,
        Warning = 1,
        Fatal = 2
    };

    ZebTdxLog();

    /// Turns the log off for the rest of the process, then closes the file.
    ~ZebTdxLog();

    /// The one log of the process, built at first use.
    static ZebTdxLog& instance();

    /// Whether lines are taken. Starts true. Takes no lock.
    bool enabled() const;

    /// Turns the log on or off without closing or opening the file. Takes no lock.
    void setEnabled(bool enabled);

    /// Moves the log to "TdxLog.txt" in the directory `path`, which is made with its parents when
    /// it is missing. An empty path closes the file. Returns false, with a debug line, when the
    /// directory cannot be made or the file cannot be opened; the file is closed then. Takes no
    /// lock.
    bool setSubCache(const QString& path);

    /// Appends one line of the tag of `level`, the time of day, `message`, `file` and `line`, and
    /// sends the same pieces to Qt's debug channel. Fatal then ends the process, with the line
    /// already in the file. Without an open file nothing happens at any level. Always true; a
    /// failed write to the file is not noticed.
    bool log(Level level, const char* file, int line, const QString& message);

private:
    Q_DISABLE_COPY(ZebTdxLog)

    // Held for the writing of one line, so that lines never interleave. Taken with nothing else
    // held inside it.
    QMutex m_Mutex;
    QFile m_File;
    std::atomic<bool> m_Enabled;

    // Set by the destructor and never cleared: code that runs during process exit may still call.
    static std::atomic<bool> s_Dead;
};
