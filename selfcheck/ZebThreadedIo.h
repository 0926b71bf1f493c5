#pragma once

// Internal: the work of testThreadedIo(). Not installed.

#include "data/ZebDataReference.h"

#include <QByteArray>
#include <QVector>

#include <atomic>

/// Tasks of Qt's global pool that create and write many blocks and, once those are evicted,
/// preload, read and add blocks concurrently. The store must be set up.
///
/// Thread safety: belongs to the thread that runs the check; its tasks end within each call.
class ZebThreadedIo
{
public:
    ZebThreadedIo(int blocks, int blockBytes);

    /// Adds the blocks.
    void create();

    /// Whether no block is resident while every reference lives; prints the first difference.
    bool restsOnDisk() const;

    /// Preloads, reads and adds blocks, in random order, and waits for the disk.
    void mix();

    /// Drops all references.
    void clear();

    int references() const { return m_References.size(); }
    qint64 bytesRead() const { return m_BytesRead.load(std::memory_order_relaxed); }

private:
    // One task of the second phase.
    struct Task
    {
        enum Kind : int
        {
            Preload,
            Read,
            Create
        };
        Kind m_Kind;
        int m_Index;
    };

    // What the pool runs.
    ZebDataReference createBlock(int index);
    ZebDataReference work(Task task, const ZebDataReference& reference);
    void readBlock(int index, const ZebDataReference& reference);

    // All tasks of the second phase, in random order.
    QVector<Task> shuffledTasks() const;

    int m_Blocks;
    int m_BlockBytes;
    QVector<ZebDataReference> m_References;

    // Counters of the tasks, for reports only.
    std::atomic<qint64> m_BytesCreated;
    std::atomic<qint64> m_BytesRead;
    std::atomic<qint64> m_Sum;
};
