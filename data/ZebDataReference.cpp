#include "data/ZebDataReference.h"

#include "data/ZebDataBlock.h"
#include "hash/ZebThreadSlot.h"
#include "support/ZebDeleteMutexLocker.h"
#include "support/ZebTdxMessage.h"

#include <QScopeGuard>

#include <cstdlib>
#include <new>

QAtomicInt ZebDataReference::m_ReferenceCount;
QAtomicInt ZebDataReference::m_AllocCount;

// Each thread counts in a place of its own, which only it writes; a reference may end on another
// thread than the one that made it. m_ReferenceCount has the share of threads without a place.
void ZebDataReference::addToCount(int change)
{
    ZebThreadSlot* const slot = ZebThreadSlot::mine();
    if (slot == nullptr)
        m_ReferenceCount.fetchAndAddRelaxed(change);
    else
        slot->m_References.store(slot->m_References.load(std::memory_order_relaxed) + change,
                                 std::memory_order_relaxed);
}

ZebDataReference::ZebDataReference()
{
    addToCount(1);
}

ZebDataReference::ZebDataReference(const ZebDataReference& other)
    : m_DataHash(other.m_DataHash), m_HashJob(other.m_HashJob)
{
    addToCount(1);
}

ZebDataReference::ZebDataReference(const ZebSmartPointer<ZebDataHash>& hash) : m_DataHash(hash)
{
    addToCount(1);
}

ZebDataReference::ZebDataReference(const ZebSmartPointer<ZebBlockFuture>& job) : m_HashJob(job)
{
    addToCount(1);
}

ZebDataReference::~ZebDataReference()
{
    addToCount(-1);
}

ZebDataReference& ZebDataReference::operator=(const ZebDataReference& other)
{
    if (this == &other)
        return *this;
    m_DataHash = other.m_DataHash;
    m_HashJob = other.m_HashJob;
    return *this;
}

ZebDataReference& ZebDataReference::operator=(const ZebSmartPointer<ZebBlockFuture>& job)
{
    m_DataHash = ZebSmartPointer<ZebDataHash>();
    m_HashJob = job;
    return *this;
}

bool ZebDataReference::operator==(const ZebDataReference& other) const
{
    return m_DataHash == other.m_DataHash && m_HashJob == other.m_HashJob;
}

bool ZebDataReference::operator!=(const ZebDataReference& other) const
{
    return !(*this == other);
}

void ZebDataReference::swap(ZebDataReference& other)
{
    m_DataHash.swap(other.m_DataHash);
    m_HashJob.swap(other.m_HashJob);
}

bool ZebDataReference::isNull() const
{
    return m_DataHash.isNull() && m_HashJob.isNull();
}

bool ZebDataReference::hasHashJob() const
{
    return !m_HashJob.isNull();
}

void ZebDataReference::resolveWork() const
{
    checkAndWaitJob();
}

void ZebDataReference::checkAndWaitJob() const
{
    if (!m_DataHash.isNull() || m_HashJob.isNull())
        return;
    ZebSmartPointer<ZebBlockFuture> job = m_HashJob;
    while (!job.isNull()) {
        // A job may return a reference that is itself pending.
        const ZebDataReference result = job->data();
        result.checkAndWaitJob();
        m_DataHash = result.m_DataHash;
        job = result.m_HashJob;
    }
    m_HashJob = ZebSmartPointer<ZebBlockFuture>();
    if (m_DataHash.isNull())
        ZebTdxMessage::fatal(QStringLiteral("Null Value for m_DataHash"));
}

QString ZebDataReference::hash() const
{
    checkAndWaitJob();
    return m_DataHash.isNull() ? QStringLiteral("NULL") : m_DataHash->toString();
}

ZebSmartPointer<ZebDataHash> ZebDataReference::hashPtr() const
{
    checkAndWaitJob();
    return m_DataHash;
}

bool ZebDataReference::isInMemory() const
{
    checkAndWaitJob();
    return ZebDataBlockManager::instance().isInMemory(m_DataHash.data());
}

int ZebDataReference::userId() const
{
    checkAndWaitJob();
    return m_DataHash.isNull() ? -1 : m_DataHash->userId();
}

void ZebDataReference::setUserId(int id) const
{
    checkAndWaitJob();
    if (!m_DataHash.isNull())
        m_DataHash->setUserId(id);
}

void ZebDataReference::preload(ZebDataBlockManager::PreloadPriority priority) const
{
    checkAndWaitJob();
    ZebDataBlockManager::instance().preloadData(ZebDataReference(m_DataHash), priority);
}

const ZebConstAccessor ZebDataReference::constAccessor() const
{
    if (m_DataHash.isNull())
        checkAndWaitJob();
    if (!m_DataHash.isNull()) {
        if (ZebDataBlock* const block = m_DataHash->tryOpen())
            return ZebConstAccessor(m_DataHash.data(), block);
    }
    return openWithDeletesHeld();
}

const ZebConstAccessor ZebDataReference::openWithDeletesHeld() const
{
    for (;;) {
        {
            const ZebDeleteMutexLocker deleteLocker;
            if (m_DataHash.isNull()) {
                ZebTdxMessage::debug(QString::asprintf("Null Value of m_DataHash m_HashJob=%p",
                                                       static_cast<const void*>(m_HashJob.data())));
                ZebTdxMessage::fatal(QStringLiteral("Null Value of m_DataHash"));
            }
            if (m_DataHash->tryIncRef()) {
                ZebSmartPointer<ZebDataHash> held;
                held.adopt(m_DataHash.data());
                // The accessor pins the block before the delete lock is released, so that no other
                // thread evicts it in between.
                return ZebConstAccessor(held,
                                        ZebDataBlockManager::instance().getDataBlock(held.data()));
            }
        }
        // Another thread has locked the hash. It may need the delete lock.
        m_DataHash->awaitUnlocked();
    }
}

ZebModifyAccessor ZebDataReference::modifyAccessor() const
{
    checkAndWaitJob();
    if (!m_DataHash.isNull()) {
        if (const ZebDataBlock* const block = m_DataHash->tryBeginCopy()) {
            const auto end = qScopeGuard([this] { m_DataHash->endCopy(); });
            return ZebModifyAccessor(ZebDataBlock::privateCopy(*block).release());
        }
    }
    const ZebDeleteMutexLocker deleteLocker;
    const ZebDataBlock* const block =
        ZebDataBlockManager::instance().getDataBlock(m_DataHash.data());
    if (block == nullptr)
        return ZebModifyAccessor(nullptr);
    return ZebModifyAccessor(ZebDataBlock::privateCopy(*block).release());
}

int ZebDataReference::referenceCount()
{
    qint64 sum = m_ReferenceCount.loadRelaxed();
    for (const ZebThreadSlot* slot = ZebThreadSlot::first(); slot != nullptr; slot = slot->next())
        sum += slot->m_References.load(std::memory_order_relaxed);
    return static_cast<int>(sum);
}

int ZebDataReference::allocCount()
{
    return m_AllocCount.loadRelaxed();
}

void* ZebDataReference::operator new(std::size_t size)
{
    m_AllocCount.fetchAndAddRelaxed(1);
    void* const memory = std::malloc(size);
    if (memory == nullptr) {
        m_AllocCount.fetchAndAddRelaxed(-1);
        throw std::bad_alloc();
    }
    return memory;
}

void* ZebDataReference::operator new(std::size_t size, void* place) noexcept
{
    Q_UNUSED(size)
    return place;
}

void ZebDataReference::operator delete(void* memory) noexcept
{
    m_AllocCount.fetchAndAddRelaxed(-1);
    std::free(memory);
}

void ZebDataReference::operator delete(void* memory, void* place) noexcept
{
    Q_UNUSED(memory)
    Q_UNUSED(place)
}

unsigned int qHash(const ZebDataReference& reference)
{
    const ZebSmartPointer<ZebDataHash> hash = reference.hashPtr();
    if (hash.isNull())
        return 0;
    const unsigned int content = hash->qhash();
    return content ^ (content >> 31);
}
