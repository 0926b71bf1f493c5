#pragma once

// Internal: the bits of ZebDataHash::m_Word. Not installed. docs/CONCURRENCY.md has the protocol.

#include <QtGlobal>

/// The state of a hash that its users change without a lock: 31 bits of references, four marks, 4
/// bits of copies in progress, and 25 bits of pins, which are signed.
namespace ZebHashWord {

/// One holder of the hash.
constexpr quint64 s_Reference = 1;
constexpr quint64 s_References = (quint64(1) << 31) - 1;

/// A thread holds the hash by ZebDataHash::tryLock(). While it is set, other threads change the
/// word only with the delete lock or the hash's mutex held, except that a look-up may add a
/// reference and a copy may end.
constexpr quint64 s_Locked = quint64(1) << 31;

/// The hash has a resident block. Changes with the delete lock held.
constexpr quint64 s_Resident = quint64(1) << 32;

/// Eviction may pick the block: the hash is in the list of the LRU, or marked as used.
constexpr quint64 s_Evictable = quint64(1) << 33;

/// The hash is on one thread's stack of used hashes, or is about to be pushed there by the thread
/// that has set the mark. Cleared with the delete lock held.
constexpr quint64 s_Used = quint64(1) << 34;

/// One thread that copies the bytes of the block.
constexpr quint64 s_Copy = quint64(1) << 35;
constexpr quint64 s_Copies = quint64(15) << 35;

/// One accessor that pins the block.
constexpr int s_PinShift = 39;
constexpr quint64 s_Pin = quint64(1) << s_PinShift;

/// What one hash can count at most.
constexpr int s_MostReferences = static_cast<int>(s_References);
constexpr int s_MostPins = (1 << 24) - 1;

constexpr int references(quint64 word)
{
    return static_cast<int>(word & s_References);
}

/// Negative after accessors were assigned.
constexpr int pins(quint64 word)
{
    // Shifting a negative number keeps its sign with every compiler that Qt 5 supports.
    return static_cast<int>(static_cast<qint64>(word) >> s_PinShift);
}

constexpr quint64 withoutPins(quint64 word)
{
    return word & (s_Pin - 1);
}

} // namespace ZebHashWord
