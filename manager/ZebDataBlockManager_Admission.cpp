// Admission: how bytes become resident blocks.

#include "manager/ZebDataBlockManager.h"

#include "data/ZebDataBlock.h"
#include "data/ZebDataReference.h"
#include "data/ZebHashingJob.h"
#include "hash/ZebHashManager.h"
#include "support/ZebTdxMessage.h"
#include "support/ZebWriteLocker.h"

#include <QScopeGuard>
#include <QUuid>

#include <memory>

namespace {

// A random identity for an uncached block, independent of its bytes.
ZebSmartPointer<ZebDataHash> freshIdentity()
{
    const QByteArray unique = QUuid::createUuid().toByteArray();
    auto hash =
        std::make_unique<ZebDataHash>(reinterpret_cast<const unsigned char*>(unique.constData()),
                                      unique.size(), ZebDataHash::Hash512);
    hash->setDontCache(true);
    return ZebHashManager::instance().addHash(hash.release());
}

void requireSize(qint64 size)
{
    if (size < 0)
        ZebTdxMessage::fatal(QStringLiteral("Negative value passed for size."));
}

} // namespace

void ZebDataBlockManager::makeBlockLive(ZebDataHash* hash, ZebDataBlock* block)
{
    const ZebTdxMutexLocker locker(&deleteMutex());
    requireInitialized();
    // Kept on purpose: *Me stands for the block and *Ptr for the hash.
    if (block == nullptr)
        ZebTdxMessage::fatal(QStringLiteral("Null Value Passed For *Me"));
    if (hash == nullptr)
        ZebTdxMessage::fatal(QStringLiteral("Null Value Passed For *Ptr"));
    std::unique_ptr<ZebDataBlock> owned(block);
    // Deduplication: the resident block stays and `owned` deletes the duplicate.
    // Kept on purpose: this is no use of the resident block, and the duplicate's size is not
    // checked.
    if (m_HashToBlockMap.contains(hash))
        return;
    if (block->size() > maxDataCacheSize()) {
        ZebTdxMessage::fatal(
            QStringLiteral("Requested Block is larger than the maximum allocation size %1 / %2")
                .arg(block->size())
                .arg(maxDataCacheSize()));
    }
    managePhysicalMemoryUse(static_cast<quint64>(block->size()), true);
    if (hash == nullptr) {
        // Kept on purpose: unreachable after the first check, and so is its message.
        ZebTdxMessage::fatal(QStringLiteral("Null Ptr"));
    }
    m_HashToBlockMap.insert(hash, block);
    auto undo = qScopeGuard([this, hash]() ZEBTDX_NO_THREAD_SAFETY_ANALYSIS { forget(hash); });
    if (!hash->isDontCache()) {
        m_Lru.add(hash);
        // Written at admission, so that eviction finds the file complete.
        queueWrite(hash, block, false);
    }
    // Nothing throws from here on.
    undo.dismiss();
    static_cast<void>(owned.release());
    m_LiveBytes.fetch_add(block->size(), std::memory_order_relaxed);
}

void ZebDataBlockManager::forget(ZebDataHash* hash)
{
    m_HashToBlockMap.remove(hash);
    const ZebWriteLocker lruLocker(&m_Lru.lock());
    m_Lru.remove(hash);
}

ZebDataReference ZebDataBlockManager::admit(const ZebSmartPointer<ZebDataHash>& hash,
                                            ZebDataBlock* block)
{
    makeBlockLive(hash.data(), block);
    return getReference(hash.data());
}

ZebDataReference ZebDataBlockManager::addBlock(const QByteArray& data,
                                               ZebModifyAccessor::Caching caching, bool immediate)
{
    requireInitialized();
    if (caching == ZebModifyAccessor::DontCache) {
        const ZebTdxMutexLocker locker(&deleteMutex());
        auto block = std::make_unique<ZebDataBlock>(data);
        const ZebSmartPointer<ZebDataHash> hash = freshIdentity();
        return admit(hash, block.release());
    }
    if (immediate) {
        const ZebTdxMutexLocker locker(&deleteMutex());
        const ZebSmartPointer<ZebDataHash> hash = ZebHashManager::instance().getHash(data);
        return admit(hash, new ZebDataBlock(data));
    }
    return ZebDataReference(ZebSmartPointer<ZebBlockFuture>(new ZebHashingJob(data)));
}

ZebDataReference ZebDataBlockManager::addBlock(ZebDataBlock* block,
                                               ZebModifyAccessor::Caching caching, bool immediate)
{
    requireInitialized();
    if (block == nullptr)
        return {};
    std::unique_ptr<ZebDataBlock> owned(block);
    if (caching == ZebModifyAccessor::DontCache) {
        const ZebTdxMutexLocker locker(&deleteMutex());
        const ZebSmartPointer<ZebDataHash> hash = freshIdentity();
        return admit(hash, owned.release());
    }
    if (immediate) {
        const ZebTdxMutexLocker locker(&deleteMutex());
        const ZebSmartPointer<ZebDataHash> hash = ZebHashManager::instance().getHash(block->m_Data);
        return admit(hash, owned.release());
    }
    return ZebDataReference(ZebSmartPointer<ZebBlockFuture>(new ZebHashingJob(owned.release())));
}

ZebDataReference ZebDataBlockManager::getReference(ZebDataHash* hash)
{
    const ZebTdxMutexLocker locker(&deleteMutex());
    requireInitialized();
    return ZebDataReference(ZebSmartPointer<ZebDataHash>(hash));
}

ZebModifyAccessor ZebDataBlockManager::createNewBlock(const QByteArray& data)
{
    requireInitialized();
    requireSize(data.size());
    managePhysicalMemoryUse(static_cast<quint64>(data.size()), true);
    return ZebModifyAccessor(new ZebDataBlock(data));
}

ZebModifyAccessor ZebDataBlockManager::createNewBlock(qint64 size, unsigned char fill)
{
    requireInitialized();
    requireSize(size);
    managePhysicalMemoryUse(static_cast<quint64>(size), true);
    return ZebModifyAccessor(new ZebDataBlock(size, fill));
}
