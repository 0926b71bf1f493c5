#pragma once

#include "io/ZebDataBlockWriteThread.h"
#include "support/ZebTdxExport.h"

/// The writer that does everything itself, in the order of its queue, compression included. A block
/// waits until it leaves the list, and one that found a file counts as handled.
///
/// Thread safety and locks: those of the base class; m_Lock guards the fences as well.
class ZEBTDX_EXPORT ZebDataBlockWriteThread_Pattern1 : public ZebDataBlockWriteThread
{
    Q_OBJECT

public:
    ZebDataBlockWriteThread_Pattern1(const QString& root, int bucketCount, QObject* parent);
    ~ZebDataBlockWriteThread_Pattern1() override;

    void run() override;

    /// Moves the waiting write of this hash ahead of everything less urgent than a fence, and waits
    /// until the writer has come past it. Gives the thread no wake: an idle writer sees the fence
    /// when its timed wait ends.
    void flush(const ZebSmartPointer<ZebDataHash>& hash) override;
    void flush() override;
    void closeDown() override;

private:
    /// Works the list off until it is empty.
    void drain();

    /// Writes one block, or puts its request back at `priority`.
    void handleWrite(int priority, ZebDataBlockWriteRequest* request);

    /// Notes a fence as reached.
    void handleFence(ZebDataBlockWriteRequest* request);

    /// Ends the request of a block that has its file, and counts it as handled.
    void finish(ZebDataBlockWriteRequest* request);

    /// Puts a fence behind the hash's write, both at the head of the list, and returns its number.
    int insertFence(const ZebDataHash* hash);

    /// Collects a fence that was reached; its number is free again then. False when it was not.
    bool collectFence(int fence);
};
