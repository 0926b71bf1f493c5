#include "support/WaitPlace.h"

#include <pthread.h>

namespace {

static_assert(std::is_standard_layout_v<ZebTdxMutex>, "its QMutex comes first");

constexpr quintptr s_Word = sizeof(quintptr);

// The private part of a recursive QMutex: a flag, the owner, a count and the mutex itself.
constexpr quintptr s_RecursivePartBytes = 4 * s_Word;

// The private part of a QWaitCondition begins with a mutex, which is held for moments only, and the
// condition.
constexpr quintptr s_ConditionOffset = sizeof(pthread_mutex_t);

// Smaller values in the place of a pointer are states and not addresses.
constexpr quintptr s_LowestAddress = 4096;

bool isWithin(quintptr address, quintptr begin, quintptr sizeBytes)
{
    return begin >= s_LowestAddress && address >= begin && address - begin < sizeBytes;
}

// The word at `address`, which another thread may be changing.
quintptr wordAt(quintptr address)
{
    return __atomic_load_n(reinterpret_cast<const quintptr*>(address), __ATOMIC_ACQUIRE);
}

bool isInMutex(quintptr address, quintptr mutex)
{
    return isWithin(address, mutex, s_Word) ||
           isWithin(address, wordAt(mutex), s_RecursivePartBytes);
}

bool isInCondition(quintptr address, quintptr condition)
{
    return isWithin(address, wordAt(condition) + s_ConditionOffset, sizeof(pthread_cond_t));
}

// The private part, which exists from the first wait on, begins with its mutex and the conditions
// of writers and of readers. A lock without one keeps its state in the low bits.
bool isInReadWriteLock(quintptr address, quintptr lock)
{
    const quintptr part = wordAt(lock);
    if (part < s_LowestAddress || part % s_Word != 0)
        return false;
    return isWithin(address, part, s_Word) || isInCondition(address, part + s_Word) ||
           isInCondition(address, part + 2 * s_Word);
}

} // namespace

bool WaitPlace::contains(quintptr address) const
{
    const auto object = reinterpret_cast<quintptr>(m_Object);
    switch (m_Kind) {
    case Plain:
        return isWithin(address, object, m_SizeBytes);
    case Mutex:
        return isInMutex(address, object);
    case ReadWriteLock:
        return isInReadWriteLock(address, object);
    case Condition:
        return isInCondition(address, object);
    }
    return false;
}
