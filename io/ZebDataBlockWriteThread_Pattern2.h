#pragma once

#include "io/ZebDataBlockWriteThread.h"
#include "support/ZebTdxExport.h"

#include <QMutex>
#include <QQueue>
#include <QVector>
#include <QWaitCondition>

class ZebDataBlockCompressionThread;

/// The writer that has workers compress for it, so that several blocks are compressed while another
/// one is written. Blocks pass from the list to a compression queue, a worker, a write queue, and
/// the file; they reach the disk in the order in which workers finish.
///
/// What it counts differs from the writer without workers:
///  - requestsInProgress() counts blocks from the compression queue to the file only.
///  - bytesInQueue() counts a block until it is written.
///  - Kept on purpose: a block whose file is found does not count in requestsHandled().
///
/// A write that fails goes to the tail of the write queue, with its name and its payload, and holds
/// every fence back until it succeeds.
///
/// Thread safety: that of the base class; pushWrite() is for the workers.
///
/// Locks: those of the base class, at level 4. Inside m_Lock come m_WriteQueueMutex,
/// m_CompressionQueueMutex and m_FlushMutex, in this order, or m_FenceMutex. The thread itself
/// holds one of them at most, and none across a file operation.
class ZEBTDX_EXPORT ZebDataBlockWriteThread_Pattern2 : public ZebDataBlockWriteThread
{
    Q_OBJECT

public:
    /// Makes and starts the workers as well.
    /// @param compressionThreads how many of them
    ZebDataBlockWriteThread_Pattern2(const QString& root, int bucketCount, int compressionThreads,
                                     QObject* parent);

    /// Ends the workers. The thread must have ended.
    ~ZebDataBlockWriteThread_Pattern2() override;

    void run() override;

    /// Moves the waiting write of this hash ahead of everything less urgent than a fence, and waits
    /// until everything that had left the list before the fence is written. Gives the thread no
    /// wake: an idle writer sees the fence when its timed wait ends.
    void flush(const ZebSmartPointer<ZebDataHash>& hash) override;
    void flush() override;
    void closeDown() override;

public Q_SLOTS:
    /// Takes a request back from a worker, on the worker's thread.
    void pushWrite(ZebDataBlockWriteRequest* request);

private:
    /// Takes the most urgent request off the list; null when that is empty.
    ZebDataBlockWriteRequest* popRequest();

    /// Takes the oldest request off the write queue; null when that is empty.
    ZebDataBlockWriteRequest* popWrite();

    /// Hands a request to the workers. Waits while none of the process is free.
    void pushCompression(ZebDataBlockWriteRequest* request);

    /// Works off the list and both queues until they are empty.
    void drain();

    /// Whether the list is empty and nothing is in progress.
    bool isDrained();

    /// Writes one block whose payload is made. False when there is none.
    bool writeNext();

    /// Takes up the next request of the list: gives a block to the workers, or tells the number of
    /// a fence, and -1 otherwise. Sleeps a little when the list is empty.
    int takeUpNext();

    /// Names the file of a block, and gives it to the workers when it is not there yet.
    void handleWrite(ZebDataBlockWriteRequest* request);

    /// Writes whatever is in progress, and then tells those who wait for the fence.
    void passFence(int fence);

    /// Wakes the workers when a request lies in their queue: its own wake may have been lost.
    void wakeWorkersAgain();

    /// Takes the block of a request out of bytesInQueue().
    void lowerBytesInQueue(ZebDataBlockWriteRequest* request);

    // Guards m_WriteQueue. It is not m_Lock, since workers take it.
    QMutex m_WriteQueueMutex;

    // Paired with m_FlushCondition; guards nothing.
    QMutex m_FlushMutex;

    // Guards the fences of the base class. Held from before a fence enters the list until its wait
    // begins, so that the fence cannot be reached unnoticed.
    QMutex m_FenceMutex;

    // Guards m_CompressionQueue; shared with the workers.
    QMutex m_CompressionQueueMutex;

    // Woken each time that everything is written.
    QWaitCondition m_FlushCondition;

    // Woken when a fence is reached.
    QWaitCondition m_FenceCondition;

    // Where the workers wait.
    QWaitCondition m_CompressionCondition;

    QQueue<ZebDataBlockWriteRequest*> m_CompressionQueue;
    QQueue<ZebDataBlockWriteRequest*> m_WriteQueue;

    // Owned.
    QVector<ZebDataBlockCompressionThread*> m_CompressionThreads;
};
