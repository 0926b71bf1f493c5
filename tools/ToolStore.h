#pragma once

#include "tools/StorePlace.h"

#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QtGlobal>

#include <memory>
#include <string>

class ErrorReport;

/// The process's store, set up for the length of a command. One at a time.
///
/// The store writes again and again what its disk does not take, so a full disk would keep a
/// command for ever. Whoever waits calls watchWrites() meanwhile, which gives up in the end.
///
/// Thread safety: an object belongs to the thread that made it.
class ToolStore
{
public:
    enum class Roots
    {
        /// Made when missing.
        Make,
        /// A missing one is an error.
        Expect
    };

    /// Sets the store up, with `memory` as the limit of the resident bytes. Gives null and the
    /// reason when a root cannot be used.
    static std::unique_ptr<ToolStore> open(const StorePlace& place, Roots roots, qint64 memory,
                                           std::string& reason);

    /// Cleans the store up. References may outlive it, accessors may not.
    ~ToolStore();
    ToolStore(const ToolStore&) = delete;
    ToolStore& operator=(const ToolStore&) = delete;

    /// Waits until all that was added is on the disk.
    void flush(ErrorReport& errors);

    /// Hands on what the writers could not write: one line when that begins. Ends the process with
    /// ExitCode::Failed and another line when writing has failed for `patienceMs` with no pause:
    /// what waits for writing is lost then.
    void watchWrites(ErrorReport& errors, qint64 patienceMs = s_PatienceMs);

private:
    static constexpr qint64 s_PatienceMs = 10000;

    ToolStore();

    // Receives the store's signal.
    QObject m_Receiver;
    QString m_LastError;
    qint64 m_Failures;
    // Since the first failure of the present run of failures, and since the last one.
    QElapsedTimer m_SinceFirst;
    QElapsedTimer m_SinceLast;
    qint64 m_Told;
};
