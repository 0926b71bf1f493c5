#pragma once

#include "io/ZebDataBlockWriteThread.h"
#include "support/ZebTdxExport.h"

/// The writer without workers: it compresses and writes one block after another. A block counts in
/// bytesInQueue() until it leaves the list. A write that found a complete file counts as handled.
///
/// Thread safety and locks: those of the base class; m_Lock guards the fences, too.
class ZEBTDX_EXPORT ZebDataBlockWriteThread_Pattern1 : public ZebDataBlockWriteThread
{
    Q_OBJECT

public:
    ZebDataBlockWriteThread_Pattern1(const QString& root, int bucketCount, QObject* parent);
    ~ZebDataBlockWriteThread_Pattern1() override;

    void run() override;

    /// Moves the waiting write of this hash to the fences, adds a fence after it, and waits until
    /// the writer has passed the fence. Kept on purpose: sends no wake-up, so an idle writer sees
    /// the fence when its wait times out. A write that fails is queued after its fence and not
    /// waited for.
    void flush(const ZebSmartPointer<ZebDataHash>& hash) override;
    void flush() override;
    void closeDown() override;

private:
    /// Processes the list until it is empty.
    void drain();

    /// Writes one block, or returns its request to the list at `priority`.
    void handleWrite(int priority, ZebDataBlockWriteRequest* request);

    /// Returns the request of a failed write to the list.
    void requeue(int priority, ZebDataBlockWriteRequest* request);

    /// Marks a fence as reached.
    void handleFence(ZebDataBlockWriteRequest* request);

    /// Deletes the request of a block that has its file, and counts it as handled.
    void finish(ZebDataBlockWriteRequest* request);

    /// Moves the hash's write to the fences, adds a fence after it, and returns its number.
    int insertFence(const ZebDataHash* hash);

    /// Frees the number of a fence if the writer has reached it; false otherwise.
    bool collectFence(int fence);
};
