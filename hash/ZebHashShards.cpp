#include "hash/ZebHashShards.h"

// The analysis cannot follow locks that a loop takes.

ZebHashShards::Locker::Locker(ZebHashShards& shards) ZEBTDX_NO_THREAD_SAFETY_ANALYSIS
    : m_Shards(shards)
{
    for (ZebHashShard& shard : m_Shards)
        shard.m_Mutex.lock();
}

ZebHashShards::Locker::~Locker() ZEBTDX_NO_THREAD_SAFETY_ANALYSIS
{
    for (ZebHashShard& shard : m_Shards)
        shard.m_Mutex.unlock();
}
