#pragma once

#include "support/ZebTdxExport.h"
#include "support/ZebThreadSafety.h"

#include <QFile>
#include <QMutex>
#include <QString>

#include <atomic>

/// A small process-wide log for the host: one text file in the current sub-cache directory.
///
/// The library's own components send their debug lines straight to Qt's message handler. Of the
/// library, only the block manager uses this class: it sets the directory, and disables the log at
/// process exit.
///
/// States: disabled, or destroyed at process exit: every operation succeeds and does nothing.
/// Enabled with no file: nothing is written. Enabled with a file: lines are appended, also to the
/// file of an earlier run.
///
/// Thread safety: any thread may call log(). Only the controlling thread may call setSubCache(),
/// while no other thread logs.
///
/// Locks: log() holds m_Mutex while it writes the line to the file. Qt's message handler processes
/// the copy with no lock of the log held; the copies of two threads may arrive in another order
/// than their lines in the file. A handler that calls log() gets the copy of that line, too, and
/// must end that recursion itself.
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

    /// Disables the log for the rest of the process, then closes the file.
    ~ZebTdxLog();

    /// The log of the process, constructed at first use.
    static ZebTdxLog& instance();

    /// Whether log() writes. True at first. Takes no lock.
    bool enabled() const;

    /// Enables or disables the log without closing or opening the file. Takes no lock.
    void setEnabled(bool enabled);

    /// Continues the log in "TdxLog.txt" in the directory `path`, which is created with its parents
    /// if it is missing. An empty path closes the file. Returns false, with a debug line, if the
    /// directory cannot be created, the file cannot be opened, or its name belongs to a link or
    /// anything else than a regular file; no file is open then. Takes no lock.
    bool setSubCache(const QString& path);

    /// Appends a line with the tag of `level`, the time of day, `message`, `file` and `line`, and
    /// then sends the same to Qt's debug channel. Fatal then ends the process; the line is in the
    /// file by then. Without an open file nothing happens at any level. Always returns true; a
    /// failed write to the file goes unnoticed.
    bool log(Level level, const char* file, int line, const QString& message);

private:
    Q_DISABLE_COPY(ZebTdxLog)

    // Held while one line is written, so that lines never interleave. No lock of the library is
    // taken inside it.
    QMutex m_Mutex;
    QFile m_File ZEBTDX_GUARDED_BY(m_Mutex);
    std::atomic<bool> m_Enabled;

    // Set by the destructor and never cleared: code that runs during process exit may still log.
    static std::atomic<bool> s_Dead;
};
