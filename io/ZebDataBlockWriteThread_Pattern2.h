#pragma once

#include "io/ZebDataBlockWriteThread.h"
#include "support/ZebTdxExport.h"

#include <QMutex>
#include <QQueue>
#include <QVector>
#include <QWaitCondition>

class ZebDataBlockCompressionThread;

/// The writer with workers: they compress several blocks while the writer writes another. A block
/// passes from the list to the compression queue, a worker, the write queue and the file. Blocks
/// reach the disk in the order in which the workers finish.
///
/// Its counters differ from those of the writer without workers:
///  - requestsInProgress() counts a block from the compression queue to the file only.
///  - bytesInQueue() counts a block until it is written.
///  - Kept on purpose: a write that found a complete file does not count in requestsHandled().
///
/// A failed write moves to the tail of the write queue with its path and payload, and delays every
/// fence until it succeeds.
///
/// Thread safety: that of the base class; pushWrite() is for the workers.
///
/// Locks: those of the base class, at level 3. Inside m_Lock: m_WriteQueueMutex,
/// m_CompressionQueueMutex and m_FlushMutex, in this order, or m_FenceMutex. The thread itself
/// holds at most one of them, and none across a file operation.
class ZEBTDX_EXPORT ZebDataBlockWriteThread_Pattern2 : public ZebDataBlockWriteThread
{
    Q_OBJECT

public:
    /// Also makes and starts the workers.
    /// @param compressionThreads the number of workers
    ZebDataBlockWriteThread_Pattern2(const QString& root, int bucketCount, int compressionThreads,
                                     QObject* parent);

    /// Ends the workers. The writer's own thread must have ended.
    ~ZebDataBlockWriteThread_Pattern2() override;

    void run() override;

    /// Moves the waiting write of this hash to the fences, adds a fence after it, and waits until
    /// every block that left the list before the fence is written. Kept on purpose: sends no
    /// wake-up, so an idle writer sees the fence when its wait times out. Waits indefinitely while
    /// the disk fails.
    void flush(const ZebSmartPointer<ZebDataHash>& hash) override;
    void flush() override;
    void closeDown() override;

public Q_SLOTS:
    /// Queues a compressed request for writing. Runs on the worker's thread. Throws nothing.
    void pushWrite(ZebDataBlockWriteRequest* request);

private:
    /// Takes the most urgent request from the list; null when the list is empty.
    ZebDataBlockWriteRequest* popRequest();

    /// Takes the oldest request from the write queue; null when the queue is empty.
    ZebDataBlockWriteRequest* popWrite();

    /// Queues a request for the workers. Waits while no worker of the process is free.
    void pushCompression(ZebDataBlockWriteRequest* request);

    /// Processes the list and both queues until they are empty.
    void drain();

    /// Whether the list is empty and nothing is in progress.
    bool isDrained();

    /// Writes one compressed block. False when the write queue is empty.
    bool writeNext();

    /// Handles the next request of the list. Returns the number of a fence, otherwise -1. Sleeps
    /// briefly when the list is empty.
    int takeUpNext();

    /// Sets the path of a block's file, and queues the block for the workers unless a complete file
    /// exists.
    void handleWrite(ZebDataBlockWriteRequest* request);

    /// Sets the path of a block's file, and returns whether a complete file exists there.
    bool findFile(ZebDataBlockWriteRequest* request);

    /// Writes everything in progress, then wakes the threads that wait for the fence.
    void passFence(int fence);

    /// Wakes the workers again if their queue is not empty: they may have missed the first wake-up.
    void wakeWorkersAgain();

    /// Subtracts the block of a request from bytesInQueue().
    void lowerBytesInQueue(ZebDataBlockWriteRequest* request);

    // Separate from m_Lock, since workers take it.
    QMutex m_WriteQueueMutex ZEBTDX_ACQUIRED_AFTER(m_Lock);

    // Paired with m_FlushCondition; guards nothing.
    QMutex m_FlushMutex ZEBTDX_ACQUIRED_AFTER(m_CompressionQueueMutex);

    // Guards the fences of the base class. flush() holds it from before a fence enters the list
    // until its wait begins, so that it cannot miss the fence.
    QMutex m_FenceMutex ZEBTDX_ACQUIRED_AFTER(m_Lock);

    // Shared with the workers.
    QMutex m_CompressionQueueMutex ZEBTDX_ACQUIRED_AFTER(m_WriteQueueMutex);

    // Woken whenever everything is written.
    QWaitCondition m_FlushCondition;

    // Woken when the writer reaches a fence.
    QWaitCondition m_FenceCondition;

    // Where the workers wait.
    QWaitCondition m_CompressionCondition;

    QQueue<ZebDataBlockWriteRequest*> m_CompressionQueue ZEBTDX_GUARDED_BY(m_CompressionQueueMutex);
    QQueue<ZebDataBlockWriteRequest*> m_WriteQueue ZEBTDX_GUARDED_BY(m_WriteQueueMutex);

    // Owned.
    QVector<ZebDataBlockCompressionThread*> m_CompressionThreads;
};
