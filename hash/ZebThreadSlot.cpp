#include "hash/ZebThreadSlot.h"

#include "support/ZebForkWatch.h"

#include <new>

#ifdef Q_OS_UNIX
#include <pthread.h>
#endif

static_assert(sizeof(ZebThreadSlot) == 64, "a slot is one cache line of its owner");

std::atomic<ZebThreadSlot*> ZebThreadSlot::s_First{nullptr};

#ifdef Q_CC_GNU
__thread ZebThreadSlot* ZebThreadSlot::s_Mine __attribute__((tls_model("initial-exec"))) = nullptr;
#else
thread_local ZebThreadSlot* ZebThreadSlot::s_Mine = nullptr;
#endif

namespace {

// Set when the thread has given its slot back; it gets no other one. What runs still later in this
// thread takes the locks.
thread_local bool t_HasEnded = false;

#ifdef Q_OS_UNIX

// A key of POSIX and not an object with a destructor: the keys are destroyed after all thread-local
// objects, so that these find the slot; a key can fail to register, while a destructor that cannot
// ends the process; and the main thread keeps its slot during the destruction of static objects.
class EndOfThread
{
public:
    explicit EndOfThread(void (*call)(void*)) : m_IsValid(::pthread_key_create(&m_Key, call) == 0)
    {}

    // Returns whether the call will be made when the calling thread ends.
    bool callWith(void* argument) const
    {
        return m_IsValid && ::pthread_setspecific(m_Key, argument) == 0;
    }

private:
    pthread_key_t m_Key{};
    bool m_IsValid;
};

#else

class EndOfThread
{
public:
    explicit EndOfThread(void (*call)(void*)) : m_Call(call) {}

    bool callWith(void* argument) const
    {
        thread_local Caller caller;
        caller.m_Call = m_Call;
        caller.m_Argument = argument;
        return true;
    }

private:
    struct Caller
    {
        void (*m_Call)(void*) = nullptr;
        void* m_Argument = nullptr;
        ~Caller() { m_Call(m_Argument); }
    };

    void (*m_Call)(void*);
};

#endif

} // namespace

ZebThreadSlot* ZebThreadSlot::take() noexcept
{
    if (s_Mine != nullptr || t_HasEnded)
        return s_Mine;
    // Before the first slot exists, so that no fork misses one.
    ZebForkWatch::callInChild(&ZebThreadSlot::forgetThreadsOfParent);
    static const EndOfThread endOfThread(&ZebThreadSlot::giveBack);
    ZebThreadSlot* slot = takeFree();
    if (slot == nullptr)
        slot = takeNew();
    if (slot == nullptr)
        return nullptr;
    if (!endOfThread.callWith(slot)) {
        slot->m_IsOwned.store(false, std::memory_order_release);
        return nullptr;
    }
    s_Mine = slot;
    return slot;
}

ZebThreadSlot* ZebThreadSlot::takeFree() noexcept
{
    // A walk per new thread. A list of free slots would need a lock, or a counter against reuse.
    for (ZebThreadSlot* slot = first(); slot != nullptr; slot = slot->next()) {
        bool isOwned = slot->m_IsOwned.load(std::memory_order_relaxed);
        if (!isOwned && slot->m_IsOwned.compare_exchange_strong(
                            isOwned, true, std::memory_order_acquire, std::memory_order_relaxed))
            return slot;
    }
    return nullptr;
}

ZebThreadSlot* ZebThreadSlot::takeNew() noexcept
{
    auto* const slot = new (std::nothrow) ZebThreadSlot;
    if (slot == nullptr)
        return nullptr;
    // Includes release: a walk that finds the slot sees it constructed. Slots are never removed, so
    // the head cannot come back with another successor.
    slot->m_Next = s_First.load(std::memory_order_relaxed);
    while (!s_First.compare_exchange_weak(slot->m_Next, slot, std::memory_order_seq_cst,
                                          std::memory_order_relaxed)) {
    }
    return slot;
}

void ZebThreadSlot::giveBack(void* slot) noexcept
{
    auto* const own = static_cast<ZebThreadSlot*>(slot);
    Q_ASSERT(own == s_Mine && own->m_Inside.load(std::memory_order_relaxed) == 0);
    t_HasEnded = true;
    s_Mine = nullptr;
    own->m_IsOwned.store(false, std::memory_order_release);
}

// A thread that was inside at the fork does not exist in the child and would never leave. Its slot
// stays owned: it may have ended between a change and its counter.
void ZebThreadSlot::forgetThreadsOfParent() noexcept
{
    for (ZebThreadSlot* slot = first(); slot != nullptr; slot = slot->next()) {
        if (slot != s_Mine)
            slot->m_Inside.store(0, std::memory_order_relaxed);
    }
}
