// What the registry reports about its hashes.

#include "hash/ZebHashManager.h"

#include "hash/ZebHashShards.h"
#include "support/ZebTdxMessage.h"

#include <QStringList>

int ZebHashManager::hashCount() const
{
    const ZebHashShards::Locker all(*m_Shards);
    int count = 0;
    for (ZebHashShard& shard : *m_Shards) {
        const ZebTdxMutexLocker locker(&shard.m_Mutex);
        count += shard.m_Hashes.size();
    }
    return count;
}

void ZebHashManager::dumpStats()
{
    const ZebHashShards::Locker all(*m_Shards);
    quint32 requests = 0;
    quint32 hits = 0;
    quint32 misses = 0;
    quint32 removes = 0;
    for (ZebHashShard& shard : *m_Shards) {
        const ZebTdxMutexLocker locker(&shard.m_Mutex);
        requests += shard.m_Requests;
        hits += shard.m_CacheHits;
        misses += shard.m_CacheMisses;
        removes += shard.m_Removes;
    }
    ZebTdxMessage::debug(QStringLiteral("==== ZebTdx Hash Stats ===="));
    ZebTdxMessage::debug(QString::asprintf("Cache Hits %d", static_cast<int>(hits)));
    ZebTdxMessage::debug(QString::asprintf("Cache Misses %d", static_cast<int>(misses)));
    ZebTdxMessage::debug(QString::asprintf("Requests %d", static_cast<int>(requests)));
    ZebTdxMessage::debug(QString::asprintf("Removes %d", static_cast<int>(removes)));
    ZebTdxMessage::debug(QString::asprintf("Registered %d", hashCount()));
    ZebTdxMessage::debug(QString::asprintf("Existant %d", ZebDataHash::hashCount()));
    // Kept on purpose: smart pointers are not counted, and the line always prints -1.
    ZebTdxMessage::debug(QString::asprintf("HashPtrs %d", -1));
}

void ZebHashManager::clearStats()
{
    const ZebHashShards::Locker all(*m_Shards);
    for (ZebHashShard& shard : *m_Shards) {
        const ZebTdxMutexLocker locker(&shard.m_Mutex);
        shard.m_Requests = 0;
        shard.m_CacheHits = 0;
        shard.m_CacheMisses = 0;
        shard.m_Removes = 0;
    }
}

void ZebHashManager::printDebugInfo()
{
    const ZebHashShards::Locker all(*m_Shards);
    for (ZebHashShard& shard : *m_Shards) {
        const ZebTdxMutexLocker locker(&shard.m_Mutex);
        // A message handler may drop a holder meanwhile, and so change the table.
        shard.m_Hashes.forEach([](const ZebDataHash* hash) {
            ZebTdxMessage::debug(QString::asprintf("%p %d %s", static_cast<const void*>(hash),
                                                   hash->refCount(),
                                                   hash->textIfWhole().toLocal8Bit().constData()));
        });
    }
}

void ZebHashManager::snapshot(QList<ZebSmartPointer<ZebDataHash>>& list) const
{
    const ZebHashShards::Locker all(*m_Shards);
    for (ZebHashShard& shard : *m_Shards) {
        const ZebTdxMutexLocker locker(&shard.m_Mutex);
        shard.m_Hashes.forEach(
            [&list](ZebDataHash* hash) { list.append(ZebSmartPointer<ZebDataHash>(hash)); });
    }
}

// Not analysed: meant for a quiet system, so it takes no lock.
void ZebHashManager::validateState() ZEBTDX_NO_THREAD_SAFETY_ANALYSIS
{
    QStringList cached;
    QStringList notCached;
    for (const ZebHashShard& shard : *m_Shards) {
        shard.m_Hashes.forEach([&cached, &notCached](const ZebDataHash* hash) {
            const QString text = hash->textIfWhole();
            if (hash->isDontCache())
                notCached.append(text);
            else
                cached.append(QStringLiteral("%1 (Refs = %2)").arg(text).arg(hash->refCount()));
        });
    }
    if (!cached.isEmpty()) {
        cached.sort(Qt::CaseSensitive);
        ZebTdxMessage::debug(
            QStringLiteral("[ !! ] The following live cached hashes have been leaked:\n%1\n")
                .arg(cached.join(QLatin1Char('\n'))));
    }
    if (!notCached.isEmpty()) {
        notCached.sort(Qt::CaseSensitive);
        ZebTdxMessage::debug(QStringLiteral("We have the following live non-cached hashes:\n") +
                             notCached.join(QLatin1Char('\n')) + QLatin1Char('\n'));
    }
}
