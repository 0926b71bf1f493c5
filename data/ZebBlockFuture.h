#pragma once

#include "hash/ZebSmartPointer.h"
#include "support/ZebTdxExport.h"

#include <QAtomicInt>

class ZebDataReference;

/// A reference that will exist once some work has ended. A pending ZebDataReference holds one in
/// place of a hash. Hosts may derive futures of their own.
///
/// Ownership: on the heap, held by ZebSmartPointer; the last release deletes it through its
/// virtual destructor.
///
/// Thread safety: counting is atomic, and deletion is safe from any thread. data() must be callable
/// from several threads at once.
class ZEBTDX_EXPORT ZebBlockFuture
{
public:
    /// Nobody holds the new object; it is counted as alive.
    ZebBlockFuture();

    /// Kept on purpose: takes over the count of holders, and is not counted as alive although its
    /// destruction counts down. Nothing in the library copies a future.
    ZebBlockFuture(const ZebBlockFuture& other);

    /// Counts one future less.
    virtual ~ZebBlockFuture();

    /// Kept on purpose: takes over the count of holders, and nothing else.
    ZebBlockFuture& operator=(const ZebBlockFuture& other);

    /// Waits until the work has ended and gives the reference, which may itself be pending.
    virtual ZebDataReference data() = 0;

    /// How many smart pointers hold this future at this moment.
    int refCount() const;

    /// How many futures are alive.
    static int numHashJobs();

protected:
    friend class ZebSmartPointer<ZebBlockFuture>;

    /// Adds a holder. The argument has no effect.
    void incRef(void* holder);

    /// Takes a holder away; the last one deletes the object. The argument has no effect.
    void decRef(void* holder);

    /// Does nothing: counts do not move when two holders exchange their objects.
    void swap(void* from, void* to);

private:
    QAtomicInt m_RefCount;

    static QAtomicInt m_NumHashJobs;
};
