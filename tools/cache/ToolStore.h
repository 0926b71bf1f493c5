#pragma once

#include "tools/cache/RootLock.h"
#include "tools/cache/StorePlace.h"

#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QtGlobal>

#include <memory>
#include <string>

class ErrorReport;
class ZebDataReference;

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

    struct Options
    {
        Roots m_Roots = Roots::Expect;
        /// Limit of the resident bytes.
        qint64 m_Memory = 0;
        /// Compression workers for each root; 0 has each writer compress by itself.
        int m_CompressionThreads = 0;
        /// With whom the roots are shared while the store is set up.
        RootLock::Use m_Use = RootLock::Use::Reading;
    };

    /// Sets the store up. Gives null and the reason when a root cannot be used, or is in use by
    /// another process of the tool.
    static std::unique_ptr<ToolStore> open(const StorePlace& place, const Options& options,
                                           std::string& reason);

    /// Cleans the store up. References may outlive it, accessors may not.
    ~ToolStore();
    ToolStore(const ToolStore&) = delete;
    ToolStore& operator=(const ToolStore&) = delete;

    /// Whether the block has a file that counts as whole. Asking for a block that has none takes
    /// the store up to seconds, since its write might be on the way. Any thread may ask.
    bool has(const ZebDataReference& reference) const;

    /// Waits until all that was added is on the disk.
    void flush(ErrorReport& errors);

    /// Hands on what the writers could not write: one line when that begins. Ends the process with
    /// ExitCode::Failed and another line when writing has failed for `patienceMs` with no pause:
    /// what waits for writing is lost then.
    void watchWrites(ErrorReport& errors, qint64 patienceMs = s_PatienceMs);

private:
    static constexpr qint64 s_PatienceMs = 10000;

    explicit ToolStore(RootLock&& lock);

    RootLock m_Lock;
    QString m_SubCache;
    // Receives the store's signal.
    QObject m_Receiver;
    QString m_LastError;
    qint64 m_Failures;
    // Since the first failure of the present run of failures, and since the last one.
    QElapsedTimer m_SinceFirst;
    QElapsedTimer m_SinceLast;
    qint64 m_Told;
};
