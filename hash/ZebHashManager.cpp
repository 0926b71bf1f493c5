#include "hash/ZebHashManager.h"

#include "hash/ZebHashRemoval.h"
#include "hash/ZebHashRemovalList.h"
#include "hash/ZebHashShards.h"
#include "hash/ZebHashWord.h"
#include "hash/ZebStackDigest.h"
#include "support/ZebTdxMessage.h"

#include <QThread>

namespace {

// An object with this digest, or without one.
std::unique_ptr<ZebDataHash> newHash(const ZebDigestView& digest)
{
    if (digest.m_Length == 0)
        return std::make_unique<ZebDataHash>();
    // The digest is only read.
    return std::make_unique<ZebDataHash>(static_cast<ZebDataHash::Size>(digest.m_SizeBytes),
                                         const_cast<unsigned char*>(digest.m_Bytes));
}

} // namespace

ZebHashManager::ZebHashManager()
    : m_Shards(std::make_unique<ZebHashShards>()),
      m_Removals(std::make_unique<ZebHashRemovalList>())
{
    ZebTdxMessage::debug(QString::asprintf("Created Hash Manager in thread %p",
                                           static_cast<void*>(QThread::currentThread())));
}

ZebHashManager::~ZebHashManager() = default;

ZebHashManager& ZebHashManager::instance()
{
    // Never destroyed: what a host keeps in static objects may be released after any other static
    // object has been destroyed.
    static ZebHashManager* const manager = new ZebHashManager;
    return *manager;
}

ZebDigestView ZebHashManager::digestOf(const ZebDataHash& hash)
{
    return {hash.m_Size, hash.data(), hash.m_Data.size()};
}

ZebDataHash* ZebHashManager::find(const ZebHashTable& table, quint64 number,
                                  const ZebDigestView& digest)
{
    return table.find(number,
                      [&digest](const ZebDataHash& hash) { return digestOf(hash) == digest; });
}

ZebSmartPointer<ZebDataHash> ZebHashManager::getHash(unsigned char* bytes, qint64 length)
{
    return intern(ZebStackDigest(bytes, length).view());
}

ZebSmartPointer<ZebDataHash> ZebHashManager::getHash(const QByteArray& bytes)
{
    // The bytes are only read; the parameter is not const for hosts with plain buffers.
    return getHash(reinterpret_cast<unsigned char*>(const_cast<char*>(bytes.constData())),
                   bytes.size());
}

ZebSmartPointer<ZebDataHash> ZebHashManager::getHash(const QString& text)
{
    return intern(ZebStackDigest(text).view());
}

ZebSmartPointer<ZebDataHash> ZebHashManager::intern(const ZebDigestView& digest)
{
    const quint64 number = m_Shards->number(digest);
    ZebHashShard& shard = m_Shards->of(number);
    ZebTdxMutexLocker locker(&shard.m_Mutex);
    ++shard.m_Requests;
    m_Removals->await(shard, digest);
    ZebDataHash* const registered = find(shard.m_Hashes, number, digest);
    if (registered != nullptr) {
        ++shard.m_CacheHits;
        const bool isLocked = addBareCount(registered);
        // The shard must not be locked while a holder is dropped that may be the last one.
        locker.unlock();
        return takeBareCount(registered, isLocked);
    }
    std::unique_ptr<ZebDataHash> fresh = newHash(digest);
    // The entry comes first: if the table cannot grow, nothing has changed.
    shard.m_Hashes.insert(number, fresh.get());
    const ZebSmartPointer<ZebDataHash> result(fresh.release());
    ++shard.m_CacheMisses;
    // Unlocked before the caller sees the hash: dropping it takes the delete lock, which comes
    // before this one.
    locker.unlock();
    return result;
}

bool ZebHashManager::addBareCount(ZebDataHash* hash)
{
    // Counted without the hash's mutex, for which this thread must not wait here. A concurrent last
    // release decides with the shard locked, and so sees the count.
    return (hash->addReference() & ZebHashWord::s_Locked) != 0;
}

ZebSmartPointer<ZebDataHash> ZebHashManager::takeBareCount(ZebDataHash* hash, bool isLocked)
{
    ZebSmartPointer<ZebDataHash> result;
    if (!isLocked) {
        // A holder might have been added at that time, so this is one.
        result.adopt(hash);
        return result;
    }
    // Waits for the thread that holds the hash.
    result = ZebSmartPointer<ZebDataHash>(hash);
    hash->decRef(&result);
    return result;
}

ZebSmartPointer<ZebDataHash> ZebHashManager::addHash(ZebDataHash* hash)
{
    if (hash == nullptr)
        return {};
    const ZebTdxMutexLocker locker(&m_Shards->of(m_Shards->number(digestOf(*hash))).m_Mutex);
    return addHash_Unlocked(hash);
}

// Not analysed: the caller holds the mutex of the shard, which depends on the digest.
ZebSmartPointer<ZebDataHash>
ZebHashManager::addHash_Unlocked(ZebDataHash* hash) ZEBTDX_NO_THREAD_SAFETY_ANALYSIS
{
    if (hash == nullptr)
        return {};
    const ZebDigestView digest = digestOf(*hash);
    const quint64 number = m_Shards->number(digest);
    ZebHashShard& shard = m_Shards->of(number);
    m_Removals->await(shard, digest);
    ZebDataHash* const registered = find(shard.m_Hashes, number, digest);
    if (registered == nullptr) {
        // Deletes the hash if the table cannot grow.
        std::unique_ptr<ZebDataHash> owned(hash);
        shard.m_Hashes.insert(number, hash);
        ++shard.m_CacheMisses;
        return ZebSmartPointer<ZebDataHash>(owned.release());
    }
    ++shard.m_CacheHits;
    if (registered != hash)
        delete hash;
    return ZebSmartPointer<ZebDataHash>(registered);
}

bool ZebHashManager::derefRemoveHash(ZebDataHash* hash)
{
    if (hash == nullptr)
        return false;
    {
        const ZebTdxMutexLocker hashLocker(&hash->m_Mutex);
        if (hash->removeUnlessLast())
            return false;
        // Probably the last release. The decision is made with the shard locked, where no look-up
        // can interfere.
    }
    const quint64 number = m_Shards->number(digestOf(*hash));
    ZebHashShard& shard = m_Shards->of(number);
    const ZebTdxMutexLocker shardLocker(&shard.m_Mutex);
    const ZebTdxMutexLocker hashLocker(&hash->m_Mutex);
    if (!hash->removeReference())
        return false;
    // Only the entry of this very object is erased: an unregistered hash of equal digest leaves it
    // alone.
    if (shard.m_Hashes.erase(number, hash))
        ++shard.m_Removes;
    return true;
}

bool ZebHashManager::isHashLive(const QString& text) const
{
    const ZebStackDigest read(text);
    const ZebDigestView digest = read.view();
    const quint64 number = m_Shards->number(digest);
    ZebHashShard& shard = m_Shards->of(number);
    const ZebTdxMutexLocker locker(&shard.m_Mutex);
    return find(shard.m_Hashes, number, digest) != nullptr;
}

bool ZebHashManager::beginRemoval(ZebHashRemoval* removal)
{
    const ZebDigestView digest = removal->m_Digest.view();
    const quint64 number = m_Shards->number(digest);
    ZebHashShard& shard = m_Shards->of(number);
    const ZebTdxMutexLocker locker(&shard.m_Mutex);
    if (find(shard.m_Hashes, number, digest) != nullptr)
        return false;
    m_Removals->begin(removal, shard);
    return true;
}

void ZebHashManager::endRemoval(ZebHashRemoval* removal)
{
    m_Removals->end(removal);
}
