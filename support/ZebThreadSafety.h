#pragma once

// What Clang's thread-safety analysis reads: which lock guards a field, which one a function needs,
// and the level of each lock. docs/LOCKING.md explains the scheme.
//
// Everything here is empty unless ZEBTDX_CHECK_LOCKS is defined, which only the build that checks
// the locks does: a host never sees these attributes, whatever its compiler. That build includes
// this header before all others, by an option, so that Qt's locks are known as locks.

#if defined(__clang__) && defined(ZEBTDX_CHECK_LOCKS)

#define ZEBTDX_LOCK_ATTRIBUTE(...) __attribute__((__VA_ARGS__))

// A definition inherits the attributes of an earlier declaration.
class ZEBTDX_LOCK_ATTRIBUTE(capability("mutex")) QMutex;
class ZEBTDX_LOCK_ATTRIBUTE(capability("lock")) QReadWriteLock;

#else

#define ZEBTDX_LOCK_ATTRIBUTE(...)

#endif

// On a class: a lock, or an object that holds one for the length of a scope.
#define ZEBTDX_CAPABILITY(name) ZEBTDX_LOCK_ATTRIBUTE(capability(name))
#define ZEBTDX_SCOPED_CAPABILITY ZEBTDX_LOCK_ATTRIBUTE(scoped_lockable)

// On a field: the lock to hold while it, or what it points at, is read or written.
#define ZEBTDX_GUARDED_BY(lock) ZEBTDX_LOCK_ATTRIBUTE(guarded_by(lock))
#define ZEBTDX_PT_GUARDED_BY(lock) ZEBTDX_LOCK_ATTRIBUTE(pt_guarded_by(lock))

// On a function: what its caller holds, or must not hold.
#define ZEBTDX_REQUIRES(...) ZEBTDX_LOCK_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define ZEBTDX_REQUIRES_SHARED(...) ZEBTDX_LOCK_ATTRIBUTE(requires_shared_capability(__VA_ARGS__))
#define ZEBTDX_EXCLUDES(...) ZEBTDX_LOCK_ATTRIBUTE(locks_excluded(__VA_ARGS__))

// On a function: what it takes or gives back. With no lock named, the object itself.
#define ZEBTDX_ACQUIRE(...) ZEBTDX_LOCK_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define ZEBTDX_ACQUIRE_SHARED(...) ZEBTDX_LOCK_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define ZEBTDX_RELEASE(...) ZEBTDX_LOCK_ATTRIBUTE(release_capability(__VA_ARGS__))
#define ZEBTDX_TRY_ACQUIRE(...) ZEBTDX_LOCK_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define ZEBTDX_RETURN_CAPABILITY(lock) ZEBTDX_LOCK_ATTRIBUTE(lock_returned(lock))

// On a function whose body the analysis cannot follow. A comment says why.
#define ZEBTDX_NO_THREAD_SAFETY_ANALYSIS ZEBTDX_LOCK_ATTRIBUTE(no_thread_safety_analysis)

// On a lock: its place next to another one.
#define ZEBTDX_ACQUIRED_BEFORE(...) ZEBTDX_LOCK_ATTRIBUTE(acquired_before(__VA_ARGS__))
#define ZEBTDX_ACQUIRED_AFTER(...) ZEBTDX_LOCK_ATTRIBUTE(acquired_after(__VA_ARGS__))

#if defined(__clang__) && defined(ZEBTDX_CHECK_LOCKS)

/// A name that only the analysis sees; no object exists.
class ZEBTDX_CAPABILITY("lock") ZebLockName
{};

// Between two levels of the lock order. Never taken.

extern ZebLockName ZebBelowLevel2;
extern ZebLockName ZebInsideLevel2 ZEBTDX_ACQUIRED_BEFORE(ZebBelowLevel2);
extern ZebLockName ZebBelowLevel1 ZEBTDX_ACQUIRED_BEFORE(ZebInsideLevel2);

// The manager's delete lock, which classes of all folders take: ZebDataBlockManager::m_DeleteMutex.
extern ZebLockName ZebDeleteLock ZEBTDX_ACQUIRED_BEFORE(ZebBelowLevel1);

#endif

// On a lock: its level, of which 1, the outermost, is that of the delete lock.
#define ZEBTDX_LOCK_LEVEL_2                                                                        \
    ZEBTDX_ACQUIRED_AFTER(ZebBelowLevel1) ZEBTDX_ACQUIRED_BEFORE(ZebInsideLevel2)
#define ZEBTDX_LOCK_LEVEL_2_INNER                                                                  \
    ZEBTDX_ACQUIRED_AFTER(ZebInsideLevel2) ZEBTDX_ACQUIRED_BEFORE(ZebBelowLevel2)
#define ZEBTDX_LOCK_LEVEL_3 ZEBTDX_ACQUIRED_AFTER(ZebBelowLevel2)
