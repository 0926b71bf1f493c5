#pragma once

#include "support/ZebTdxMutex.h"

#include <QMutex>
#include <QReadWriteLock>
#include <QSemaphore>
#include <QWaitCondition>
#include <QtGlobal>

#include <condition_variable>
#include <mutex>

/// The memory at which a thread sleeps that waits for one lock, condition or semaphore. The kernel
/// reports the address of every futex wait, so a test can see for which object a thread waits.
///
/// Qt keeps its futexes in the object itself or in its private part; where, is the layout of
/// Qt 5.15. BlockedThreadTest shows for each class that a real wait is recognised.
///
/// Ownership: refers to the object, which must outlive it.
class WaitPlace
{
public:
    WaitPlace(const QMutex& mutex) : m_Object(&mutex), m_Kind(Mutex) {}
    // It begins with its QMutex.
    WaitPlace(const ZebTdxMutex& mutex) : m_Object(&mutex), m_Kind(Mutex) {}
    WaitPlace(const QReadWriteLock& lock) : m_Object(&lock), m_Kind(ReadWriteLock) {}
    WaitPlace(const QWaitCondition& condition) : m_Object(&condition), m_Kind(Condition) {}
    WaitPlace(const QSemaphore& semaphore)
        : m_Object(&semaphore), m_Kind(Plain), m_SizeBytes(sizeof(QSemaphore))
    {}
    WaitPlace(const std::mutex& mutex)
        : m_Object(&mutex), m_Kind(Plain), m_SizeBytes(sizeof(std::mutex))
    {}
    WaitPlace(const std::condition_variable& condition)
        : m_Object(&condition), m_Kind(Plain), m_SizeBytes(sizeof(std::condition_variable))
    {}

    /// Whether the futex at `address` is this object's. Only to be asked while a thread sleeps at
    /// `address`: that keeps the private part of a QReadWriteLock in place.
    bool contains(quintptr address) const;

private:
    enum Kind
    {
        Plain,
        Mutex,
        ReadWriteLock,
        Condition
    };

    const void* m_Object;
    Kind m_Kind;
    quintptr m_SizeBytes = 0;
};
