#pragma once

// Internal: the parts of the registry. Not installed.

#include "hash/ZebDigestMix.h"
#include "hash/ZebHashShard.h"

#include <QtGlobal>

#include <array>

/// All shards of a registry. Each digest belongs to one of them.
///
/// Locks: a thread that holds the mutex of a shard may take that of another one only as Locker
/// does.
class ZebHashShards
{
public:
    static constexpr int s_Count = 64;

    /// Locks all shards, in the order of their numbers, as long as it exists. The thread may hold
    /// them all already. It may take each again; so functions that use a Locker take the mutex of
    /// the shard that they look at, and the thread-safety analysis can check them.
    ///
    /// Thread safety: a locker belongs to the thread that made it.
    class Locker
    {
    public:
        explicit Locker(ZebHashShards& shards);
        ~Locker();
        Locker(const Locker&) = delete;
        Locker& operator=(const Locker&) = delete;

    private:
        ZebHashShards& m_Shards;
    };

    /// The number by which the shard and its table place this digest.
    quint64 number(const ZebDigestView& digest) const { return m_Mix(digest); }

    /// The shard of digests with this number. Its table uses the lowest bits; these are the
    /// highest.
    ZebHashShard& of(quint64 number) { return m_Shards[number / s_NumbersOfEach]; }

    std::array<ZebHashShard, s_Count>::iterator begin() { return m_Shards.begin(); }
    std::array<ZebHashShard, s_Count>::iterator end() { return m_Shards.end(); }

private:
    static constexpr quint64 s_NumbersOfEach = ~quint64(0) / s_Count + 1;

    const ZebDigestMix m_Mix;
    std::array<ZebHashShard, s_Count> m_Shards;
};
