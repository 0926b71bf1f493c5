#pragma once

#include "data/ZebConstAccessor.h"
#include "data/ZebDataReference.h"
#include "tools/cache/RootLock.h"
#include "tools/cache/StorePlace.h"

#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QVector>
#include <QtGlobal>

#include <functional>
#include <memory>
#include <string>

class ErrorReport;
class ZebDataReference;

/// The process's store, set up for the length of a command. One at a time.
///
/// The store retries a failed write indefinitely, so a full disk would block a command without
/// limit. Every wait of a command calls watchWrites(), which gives up in the end.
///
/// Thread safety: an object belongs to the thread that made it.
class ToolStore
{
public:
    enum class Roots
    {
        /// Created if missing.
        Make,
        /// A missing root is an error.
        Expect,
        /// The same, and a missing sub-cache, too. Nothing is created there, so the cache may be
        /// read-only.
        Read
    };

    struct Options
    {
        Roots m_Roots = Roots::Expect;
        /// Limit of the resident bytes.
        qint64 m_Memory = 0;
        /// Compression workers for each root; with 0, each writer compresses on its own thread.
        int m_CompressionThreads = 0;
        /// How the roots are shared with other processes while the store is set up.
        RootLock::Use m_Use = RootLock::Use::Reading;
    };

    /// Ends the process. Nothing less ends the writers: they stop only once all is written, and the
    /// store waits for them.
    using GiveUp = std::function<void()>;

    /// Sets the store up. Throws a ToolError when a root cannot be used, or is in use by another
    /// process of the tool.
    ///
    /// @param giveUp watchWrites() calls it; must not return
    static std::unique_ptr<ToolStore> open(const StorePlace& place, const Options& options,
                                           const GiveUp& giveUp);

    /// Cleans the store up, which waits without limit for queued blocks. References may outlive it,
    /// accessors may not.
    ~ToolStore();
    ToolStore(const ToolStore&) = delete;
    ToolStore& operator=(const ToolStore&) = delete;

    /// Throws a ToolError that begins with `what` unless the block has a file that the store can
    /// load within the memory limit. Without this check, loading a missing block takes the store up
    /// to seconds, as its write might be queued; and the store ends the process for a block larger
    /// than the limit, and for a name that leads to no root. Any thread may call this.
    void require(const ZebDataReference& reference, const std::string& what) const;

    /// The block, whose digest has been compared with its name. Throws a ToolError that begins with
    /// `what` when it is missing or damaged. Any thread may call this.
    ZebConstAccessor read(const ZebDataReference& reference, const std::string& what) const;

    /// The same without require(), for a caller that has called it.
    ZebConstAccessor load(const ZebDataReference& reference, const std::string& what) const;

    /// The members of a list of blocks, which has been read like read(). Throws a ToolError for a
    /// block that is not a list, too. Any thread may call this.
    QVector<ZebDataReference> members(const ZebDataReference& list, const std::string& what) const;

    /// Path of the block's file. Throws a ToolError for a name that leads to no root. Any thread
    /// may call this.
    std::string pathOf(const ZebDataReference& reference) const;

    /// Waits until everything that was added is written.
    void flush(ErrorReport& errors, qint64 patienceMs = s_PatienceMs);

    /// The same, and evicts every block, so that the next access reads the disk. No accessor may be
    /// open.
    void evict(ErrorReport& errors);

    /// For the end of a command that adds blocks, by an exception, too: prints the line of a stop,
    /// and waits like flush(), so that the destructor does not wait for a full disk.
    void finish(ErrorReport& errors, qint64 patienceMs = s_PatienceMs) noexcept;

    /// Waits while the writers' queues are full, so that the memory for queued blocks is bounded.
    /// For a worker, while another thread calls watchWrites(). Throws Stopped.
    static void waitForWriters();

    /// Reports failed writes: one line for each series of failures. When writes have failed for
    /// `patienceMs` without a pause, reports an error and gives up; queued blocks are lost.
    void watchWrites(ErrorReport& errors, qint64 patienceMs = s_PatienceMs);

private:
    static constexpr qint64 s_PatienceMs = 10000;

    ToolStore(RootLock&& lock, const GiveUp& giveUp);

    RootLock m_Lock;
    const GiveUp m_GiveUp;
    QString m_SubCache;
    int m_Roots = 0;
    qint64 m_Memory = 0;
    // Receives the store's signal.
    QObject m_Receiver;
    QString m_LastError;
    qint64 m_Failures = 0;
    bool m_IsReported = false;
    // Since the first and since the last failure of the present series.
    QElapsedTimer m_SinceFirst;
    QElapsedTimer m_SinceLast;
};
