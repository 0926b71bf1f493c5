#pragma once

// Internal: what each thread keeps for the operations that take no lock. Not installed.

#include <QtGlobal>

#include <atomic>

class ZebDataHash;

/// The part of a thread in the operations that take no lock: whether it is inside the gate
/// (ZebReadGate), the hashes it has used since the last drain, and its share of some sums.
///
/// Only the thread that owns a slot writes its counters and enters the gate with it. Any thread may
/// read a slot at any time, since slots are never freed. When a thread ends, its slot becomes free
/// with everything in it, and a later thread takes it over: a sum over all slots stays right, and
/// the used hashes stay on their stack until the next drain.
///
/// Thread safety: any thread may call every function. Locks: none, so that a forked child can use
/// its slots whatever the threads of its parent did at the fork.
struct alignas(64) ZebThreadSlot
{
    /// 1 while the owner is inside the gate. Written by ZebReadGate, and in a forked child.
    std::atomic<quint32> m_Inside{0};

    /// How many hashes the owner has pushed. Only the owner uses it.
    quint32 m_Pushes = 0;

    /// How often the owner has entered a gate that is not plain. Only the owner uses it.
    quint32 m_FencedEntries = 0;

    /// The newest of the used hashes. The owner pushes, the drain takes all of them.
    std::atomic<ZebDataHash*> m_Used{nullptr};

    /// How often the owner has made a block evictable, and how often it has ended that. They only
    /// grow, so that two equal passes over all slots make a snapshot.
    std::atomic<quint64> m_Listed{0};
    std::atomic<quint64> m_Unlisted{0};

    /// Data references that the owner has made, less those that it has destroyed.
    std::atomic<qint64> m_References{0};

    /// The slot of the calling thread. Null if it has none: there was no memory for a slot, or the
    /// thread is ending and has given its slot back. Never throws.
    static ZebThreadSlot* mine() noexcept
    {
#ifdef Q_CC_GNU
        if (ZebThreadSlot* const slot = s_Mine; Q_LIKELY(slot != nullptr))
            return slot;
#endif
        return take();
    }

    /// Begins a walk over all slots, those of ended threads included. Slots that other threads add
    /// meanwhile are not part of the walk. Null if there is no slot yet.
    static ZebThreadSlot* first() noexcept
    {
        // In the single order with the push in takeNew() and with the gate's word: a closer that
        // misses a new slot comes first, and the owner of that slot finds the gate closed.
        return s_First.load(std::memory_order_seq_cst);
    }

    /// Continues a walk. Null at its end.
    ZebThreadSlot* next() const noexcept
    {
        return m_Next;
    }

private:
    static ZebThreadSlot* take() noexcept;
    static ZebThreadSlot* takeFree() noexcept;
    static ZebThreadSlot* takeNew() noexcept;
    static void giveBack(void* slot) noexcept;
    static void forgetThreadsOfParent() noexcept;

    // Does not change after the slot has been published through s_First.
    ZebThreadSlot* m_Next = nullptr;
    // Release when the owner ends, acquire when the next one takes it: that one goes on with the
    // counters of the former.
    std::atomic<bool> m_IsOwned{true};

    static std::atomic<ZebThreadSlot*> s_First;

#ifdef Q_CC_GNU
    // Read by every operation, and so without a call: `__thread` has no wrapper that makes sure of
    // an initialisation, and this model reads it by an offset that the dynamic linker has fixed.
    // A call costs 1.5 to 3 ns more. In exchange the thread-local variables of the library count
    // against the few hundred bytes that the linker reserves for libraries that are loaded late.
    static __thread ZebThreadSlot* s_Mine __attribute__((tls_model("initial-exec")));
#else
    static thread_local ZebThreadSlot* s_Mine;
#endif
};
