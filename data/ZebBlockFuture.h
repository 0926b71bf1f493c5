#pragma once

#include "hash/ZebSmartPointer.h"
#include "support/ZebTdxExport.h"

#include <QAtomicInt>

class ZebDataReference;

/// A reference that is still being computed. A pending ZebDataReference holds a future instead of a
/// hash. Hosts may derive their own.
///
/// Ownership: allocated on the heap and held by ZebSmartPointer; the last release deletes it
/// through its virtual destructor.
///
/// Thread safety: the reference count is atomic, and any thread may drop the last reference.
/// Several threads may call data() at once, so a derived class must allow that.
class ZEBTDX_EXPORT ZebBlockFuture
{
public:
    /// The new object has no holder and counts as alive.
    ZebBlockFuture();

    /// Kept on purpose: copies the reference count, and does not count as alive although its
    /// destruction counts down. The library never copies a future.
    ZebBlockFuture(const ZebBlockFuture& other);

    /// Counts one future less as alive.
    virtual ~ZebBlockFuture();

    /// Kept on purpose: copies the reference count and nothing else.
    ZebBlockFuture& operator=(const ZebBlockFuture& other);

    /// Waits until the work has finished and returns the reference, which may itself be pending.
    virtual ZebDataReference data() = 0;

    /// How many smart pointers hold this future right now.
    int refCount() const;

    /// How many futures are alive.
    static int numHashJobs();

protected:
    friend class ZebSmartPointer<ZebBlockFuture>;

    /// Adds a holder. The argument has no effect.
    void incRef(void* holder);

    /// Removes a holder; the last release deletes the object. The argument has no effect.
    void decRef(void* holder);

    /// Does nothing: exchanging two smart pointers changes no count.
    void swap(void* from, void* to);

private:
    QAtomicInt m_RefCount;

    static QAtomicInt m_NumHashJobs;
};
