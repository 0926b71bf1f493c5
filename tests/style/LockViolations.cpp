// Mistakes with locks that the build of the preset thread-safety must refuse.
// scripts/check_locks.sh compiles this file once for each, with VIOLATION as its number, and once
// with 0, which must work.

#include "support/ZebDataDeleteLocker.h"
#include "support/ZebMutexLocker.h"
#include "support/ZebReadLocker.h"
#include "support/ZebTdxMutex.h"
#include "support/ZebWriteLocker.h"

#include <QMutex>
#include <QReadWriteLock>

class Guarded
{
public:
    int read() const
    {
#if VIOLATION != 1
        const ZebMutexLocker locker(&m_Mutex);
#endif
        return m_ByQtMutex;
    }

    void writeShared()
    {
#if VIOLATION == 2
        const ZebReadLocker locker(&m_Lock);
#else
        const ZebWriteLocker locker(&m_Lock);
#endif
        m_ByLock = 1;
    }

    void writeAfterUnlock()
    {
        ZebTdxMutexLocker locker(&m_Outer);
#if VIOLATION == 3
        locker.unlock();
#endif
        m_ByTdxMutex = 1;
    }

    void callHelper()
    {
#if VIOLATION != 4
        const ZebTdxMutexLocker locker(&m_Outer);
#endif
        helper();
    }

    void leaveLocked()
    {
        m_Outer.lock();
#if VIOLATION != 5
        m_Outer.unlock();
#endif
    }

    void takeInOrder()
    {
#if VIOLATION == 6
        const ZebWriteLocker inner(&m_Lock);
        const ZebTdxMutexLocker outer(&m_Outer);
#else
        const ZebTdxMutexLocker outer(&m_Outer);
        const ZebWriteLocker inner(&m_Lock);
#endif
    }

    void takeTheDeleteLockFirst()
    {
#if VIOLATION == 7
        const ZebTdxMutexLocker outer(&m_Outer);
        const ZebDataDeleteLocker deletes;
#else
        const ZebDataDeleteLocker deletes;
        const ZebTdxMutexLocker outer(&m_Outer);
#endif
    }

private:
    void helper() ZEBTDX_REQUIRES(m_Outer)
    {
        ++m_ByTdxMutex;
    }

    mutable QMutex m_Mutex;
    ZebTdxMutex m_Outer ZEBTDX_LOCK_LEVEL_2{0, QMutex::NonRecursive};
    QReadWriteLock m_Lock ZEBTDX_LOCK_LEVEL_3;
    int m_ByQtMutex ZEBTDX_GUARDED_BY(m_Mutex) = 0;
    int m_ByTdxMutex ZEBTDX_GUARDED_BY(m_Outer) = 0;
    int m_ByLock ZEBTDX_GUARDED_BY(m_Lock) = 0;
};

int useAll(Guarded& guarded)
{
    guarded.writeShared();
    guarded.writeAfterUnlock();
    guarded.callHelper();
    guarded.leaveLocked();
    guarded.takeInOrder();
    guarded.takeTheDeleteLockFirst();
    return guarded.read();
}
