#pragma once

#include "support/BlockedThread.h"
#include "support/RegistryInside.h"

#include <algorithm>
#include <optional>

/// The process's registry of hashes with all its shards locked by the calling thread.
class LockedRegistry
{
public:
    LockedRegistry() : m_Locker(std::in_place, shards()) {}

    void unlock() { m_Locker.reset(); }

    /// Waits until the thread sleeps at the mutex of a shard. Returns false as soon as its callable
    /// has ended, and when the deadline passes.
    bool blocks(const BlockedThread& thread) const
    {
        bool isWaiting = false;
        const auto isDecided = [&] {
            isWaiting =
                std::any_of(shards().begin(), shards().end(), [&thread](ZebHashShard& shard) {
                    return thread.watch().isWaitingFor(shard.m_Mutex);
                });
            return isWaiting || thread.hasEnded();
        };
        EXPECT_TRUE(pollUntil(isDecided, BlockedThread::s_DeadlineMs));
        return isWaiting;
    }

private:
    static ZebHashShards& shards() { return RegistryInside::shards(ZebHashManager::instance()); }

    std::optional<ZebHashShards::Locker> m_Locker;
};
