// Admission: how bytes become resident blocks.

#include "manager/ZebDataBlockManager.h"

#include "data/ZebDataBlock.h"
#include "data/ZebDataReference.h"
#include "data/ZebHashingJob.h"
#include "hash/ZebHashManager.h"
#include "hash/ZebReadGate.h"
#include "hash/ZebStackDigest.h"
#include "support/ZebTdxMessage.h"

#include <QUuid>

#include <memory>

namespace {

// A random identity for an uncached block, independent of its bytes; not interned.
std::unique_ptr<ZebDataHash> freshIdentity()
{
    const QByteArray unique = QUuid::createUuid().toByteArray();
    auto hash =
        std::make_unique<ZebDataHash>(reinterpret_cast<const unsigned char*>(unique.constData()),
                                      unique.size(), ZebDataHash::Hash512);
    hash->setDontCache(true);
    return hash;
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
    ZebReadGate::relax();
    // Kept on purpose: *Me stands for the block and *Ptr for the hash.
    if (block == nullptr)
        ZebTdxMessage::fatal(QStringLiteral("Null Value Passed For *Me"));
    if (hash == nullptr)
        ZebTdxMessage::fatal(QStringLiteral("Null Value Passed For *Ptr"));
    std::unique_ptr<ZebDataBlock> owned(block);
    // Deduplication: the resident block stays and `owned` deletes the duplicate.
    // Kept on purpose: this is no use of the resident block, and the duplicate's size is not
    // checked.
    if (hash->residentBlock() != nullptr)
        return;
    if (block->size() > maxDataCacheSize()) {
        ZebTdxMessage::fatal(
            QStringLiteral("Requested Block is larger than the maximum allocation size %1 / %2")
                .arg(block->size())
                .arg(maxDataCacheSize()));
    }
    managePhysicalMemoryUse(static_cast<quint64>(block->size()), true);
    // A slot or message handler of the host may have admitted the same bytes meanwhile.
    if (hash->residentBlock() != nullptr)
        return;
    if (hash == nullptr) {
        // Kept on purpose: unreachable after the first check, and so is its message.
        ZebTdxMessage::fatal(QStringLiteral("Null Ptr"));
    }
    // Written at admission, so that eviction finds the file complete. Queued before readers can
    // find the block, since only this may throw; the writer needs the delete lock to finish.
    if (!hash->isDontCache())
        queueWrite(hash, block, false);
    block->m_IsAdmitted.store(true, std::memory_order_relaxed);
    m_LiveBytes.fetch_add(block->size(), std::memory_order_relaxed);
    m_Lru.admit(hash, owned.release());
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
    if (caching == ZebModifyAccessor::DontCache || immediate)
        return addBlock(new ZebDataBlock(data), caching, immediate);
    return ZebDataReference(ZebSmartPointer<ZebBlockFuture>(new ZebHashingJob(data)));
}

ZebDataReference ZebDataBlockManager::addBlock(ZebDataBlock* block,
                                               ZebModifyAccessor::Caching caching, bool immediate)
{
    requireInitialized();
    if (block == nullptr)
        return {};
    std::unique_ptr<ZebDataBlock> owned(block);
    // The delete lock is taken after the digest has been computed, and held from the moment when
    // the hash is interned until its block is resident.
    if (caching == ZebModifyAccessor::DontCache) {
        std::unique_ptr<ZebDataHash> identity = freshIdentity();
        const ZebTdxMutexLocker locker(&deleteMutex());
        const ZebSmartPointer<ZebDataHash> hash =
            ZebHashManager::instance().addHash(identity.release());
        return admit(hash, owned.release());
    }
    if (immediate) {
        const ZebStackDigest digest(block->constData(), block->m_Data.size());
        const ZebTdxMutexLocker locker(&deleteMutex());
        const ZebSmartPointer<ZebDataHash> hash = ZebHashManager::instance().intern(digest.view());
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
