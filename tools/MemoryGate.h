#pragma once

#include <QtGlobal>

#include <condition_variable>
#include <mutex>

/// Keeps the blocks in the store within its memory limit.
///
/// The store keeps every block in memory as long as it has no disk cache behind it; going past the
/// limit would take what the user did not grant. So the tool stops before that. This class goes
/// away when blocks can leave memory for the disk.
///
/// Thread safety: any thread may call every operation.
class MemoryGate
{
public:
    /// @param limit the store's memory limit in bytes
    explicit MemoryGate(qint64 limit);

    /// Asks for a block to be added. False when it does not fit any more; nothing is let in from
    /// then on. After true, leave() must follow once the block is in the store, or will not be.
    ///
    /// Until then nobody knows whether the block is new, so it counts in full; a thread that finds
    /// the room taken by such blocks waits for them. What fits does not depend on the number of
    /// threads that way, but for the order in which they come.
    bool enter(qint64 bytes);

    void leave(qint64 bytes);

    /// Whether a block was turned away.
    bool isClosed() const;

private:
    const qint64 m_Limit;

    // Guards all below.
    mutable std::mutex m_Mutex;
    std::condition_variable m_SomethingLeft;
    // Of the blocks between enter() and leave().
    qint64 m_PendingBytes;
    bool m_Closed;
};
