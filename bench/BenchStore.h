#pragma once

#include "data/ZebDataReference.h"
#include "manager/ZebDataBlockManager.h"

#include <QByteArray>
#include <QStringList>
#include <QTemporaryDir>

/// The process's store on a cache root of its own, from construction to destruction.
///
/// Declare everything that may hold an accessor after this object, so that it is destroyed first.
///
/// Thread safety: construct and destroy it with no other thread in the store.
class BenchStore
{
public:
    static constexpr qint64 s_DefaultMemoryBytes = 1024LL * 1024 * 1024;
    static constexpr int s_DefaultBuckets = 10;

    explicit BenchStore(qint64 memoryBytes = s_DefaultMemoryBytes, int buckets = s_DefaultBuckets)
    {
        manager().setup(QStringList(m_Root.path()), memoryBytes, buckets);
    }
    ~BenchStore() { manager().cleanUp(); }
    BenchStore(const BenchStore&) = delete;
    BenchStore& operator=(const BenchStore&) = delete;

    static ZebDataBlockManager& manager() { return ZebDataBlockManager::instance(); }

    /// Adds a cached block, and waits until it is in the store.
    static ZebDataReference add(const QByteArray& bytes)
    {
        return manager().addBlock(bytes, ZebModifyAccessor::Cached, true);
    }

    /// Waits until the writers' queues are empty.
    static void waitForWriters() { manager().flush(false, ZebDataBlockManager::WriteThreads); }

    /// The path of the cache root.
    QString root() const { return m_Root.path(); }

private:
    QTemporaryDir m_Root;
};
