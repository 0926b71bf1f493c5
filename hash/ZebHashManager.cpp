#include "hash/ZebHashManager.h"

#include "hash/ZebHashRemoval.h"
#include "support/ZebCountUp.h"
#include "support/ZebMutexLocker.h"
#include "support/ZebTdxMessage.h"

#include <QStringList>
#include <QThread>

#include <memory>

ZebHashManager::ZebHashManager() : m_Mutex(QMutex::Recursive)
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

ZebSmartPointer<ZebDataHash> ZebHashManager::getHash(unsigned char* bytes, qint64 length)
{
    return intern(new ZebDataHash(bytes, length, ZebDataHash::Hash512));
}

ZebSmartPointer<ZebDataHash> ZebHashManager::getHash(const QByteArray& bytes)
{
    // The bytes are only read; the parameter is not const for hosts with plain buffers.
    return getHash(reinterpret_cast<unsigned char*>(const_cast<char*>(bytes.constData())),
                   bytes.size());
}

ZebSmartPointer<ZebDataHash> ZebHashManager::getHash(const QString& text)
{
    return intern(new ZebDataHash(text));
}

ZebSmartPointer<ZebDataHash> ZebHashManager::getDigested(const unsigned char* digest)
{
    // The digest is only read.
    return intern(new ZebDataHash(ZebDataHash::Hash512, const_cast<unsigned char*>(digest)));
}

ZebSmartPointer<ZebDataHash> ZebHashManager::intern(ZebDataHash* fresh)
{
    std::unique_ptr<ZebDataHash> owned(fresh);
    ZebMutexLocker locker(&m_Mutex);
    ZebCountUp(m_Requests);
    awaitRemoval(*fresh);
    const auto entry = m_Hashes.constFind(ZebHashHandle(fresh));
    if (entry == m_Hashes.constEnd()) {
        // The entry comes first: if the table cannot grow, nothing has changed.
        m_Hashes.insert(ZebHashHandle(fresh));
        const ZebSmartPointer<ZebDataHash> result(owned.release());
        ZebCountUp(m_CacheMisses);
        // Unlocked before the caller sees the hash: dropping it takes the delete lock, which comes
        // before this one.
        locker.unlock();
        return result;
    }
    ZebCountUp(m_CacheHits);
    ZebDataHash* const registered = entry->data();
    owned.reset();
    // Counted without the hash's mutex, for which this thread must not wait here. A concurrent last
    // release decides with the registry locked, and so sees the count.
    registered->m_RefCount.fetchAndAddOrdered(1);
    // The decRef() below may be the last release, so it needs the registry unlocked.
    locker.unlock();
    ZebSmartPointer<ZebDataHash> result(registered);
    registered->decRef(&result);
    return result;
}

ZebSmartPointer<ZebDataHash> ZebHashManager::addHash(ZebDataHash* hash)
{
    const ZebMutexLocker locker(&m_Mutex);
    return addHash_Unlocked(hash);
}

ZebSmartPointer<ZebDataHash> ZebHashManager::addHash_Unlocked(ZebDataHash* hash)
{
    if (hash == nullptr)
        return {};
    awaitRemoval(*hash);
    const auto entry = m_Hashes.constFind(ZebHashHandle(hash));
    if (entry == m_Hashes.constEnd()) {
        // Deletes the hash if the table cannot grow.
        std::unique_ptr<ZebDataHash> owned(hash);
        m_Hashes.insert(ZebHashHandle(hash));
        ZebCountUp(m_CacheMisses);
        return ZebSmartPointer<ZebDataHash>(owned.release());
    }
    ZebCountUp(m_CacheHits);
    ZebDataHash* const registered = entry->data();
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
        if (hash->m_RefCount.fetchAndAddOrdered(-1) != 1)
            return false;
        // Probably the last release. The count is restored, and the decision is made with the
        // registry locked, where no look-up can interfere.
        hash->m_RefCount.fetchAndAddOrdered(1);
    }
    const ZebMutexLocker registryLocker(&m_Mutex);
    const ZebTdxMutexLocker hashLocker(&hash->m_Mutex);
    if (hash->m_RefCount.fetchAndAddOrdered(-1) != 1)
        return false;
    const auto entry = m_Hashes.find(ZebHashHandle(hash));
    // Only the entry of this very object is erased: an unregistered hash of equal digest leaves it
    // alone.
    if (entry != m_Hashes.end() && entry->data() == hash) {
        ZebCountUp(m_Removes);
        m_Hashes.erase(entry);
    }
    return true;
}

bool ZebHashManager::isHashLive(const QString& text) const
{
    ZebDataHash wanted(text);
    const ZebMutexLocker locker(&m_Mutex);
    return m_Hashes.contains(ZebHashHandle(&wanted));
}

bool ZebHashManager::beginRemoval(ZebHashRemoval* removal)
{
    const ZebMutexLocker locker(&m_Mutex);
    if (m_Hashes.contains(ZebHashHandle(&removal->m_Hash)))
        return false;
    const ZebMutexLocker removalLocker(&m_RemovalMutex);
    removal->m_Next = m_Removals;
    m_Removals = removal;
    m_RemovalCount.fetch_add(1, std::memory_order_relaxed);
    return true;
}

void ZebHashManager::endRemoval(ZebHashRemoval* removal)
{
    const ZebMutexLocker locker(&m_RemovalMutex);
    ZebHashRemoval** link = &m_Removals;
    while (*link != removal)
        link = &(*link)->m_Next;
    *link = removal->m_Next;
    m_RemovalCount.fetch_sub(1, std::memory_order_relaxed);
    m_RemovalEnded.wakeAll();
}

bool ZebHashManager::isBeingRemoved(const ZebDataHash& hash) const
{
    const ZebHashRemoval* removal = m_Removals;
    while (removal != nullptr && removal->m_Hash != hash)
        removal = removal->m_Next;
    return removal != nullptr;
}

void ZebHashManager::awaitRemoval(const ZebDataHash& hash)
{
    // The caller may hold the delete lock, or entries of m_Mutex further out. The wait still ends:
    // a collector that has set a mark takes neither before it has cleared the mark, and in between
    // it only removes one file.
    while (m_RemovalCount.load(std::memory_order_relaxed) != 0) {
        ZebMutexLocker locker(&m_RemovalMutex);
        if (!isBeingRemoved(hash))
            return;
        m_Mutex.unlock();
        m_RemovalEnded.wait(&m_RemovalMutex);
        // Unlocked first: m_Mutex comes before it. Another removal may begin in between.
        locker.unlock();
        m_Mutex.lock();
    }
}

int ZebHashManager::hashCount() const
{
    const ZebMutexLocker locker(&m_Mutex);
    return m_Hashes.size();
}

void ZebHashManager::dumpStats()
{
    const ZebMutexLocker locker(&m_Mutex);
    ZebTdxMessage::debug(QStringLiteral("==== ZebTdx Hash Stats ===="));
    ZebTdxMessage::debug(QString::asprintf("Cache Hits %d", m_CacheHits));
    ZebTdxMessage::debug(QString::asprintf("Cache Misses %d", m_CacheMisses));
    ZebTdxMessage::debug(QString::asprintf("Requests %d", m_Requests));
    ZebTdxMessage::debug(QString::asprintf("Removes %d", m_Removes));
    ZebTdxMessage::debug(QString::asprintf("Registered %d", m_Hashes.size()));
    ZebTdxMessage::debug(QString::asprintf("Existant %d", ZebDataHash::hashCount()));
    // Kept on purpose: smart pointers are not counted, and the line always prints -1.
    ZebTdxMessage::debug(QString::asprintf("HashPtrs %d", -1));
}

void ZebHashManager::clearStats()
{
    const ZebMutexLocker locker(&m_Mutex);
    m_Requests = 0;
    m_CacheHits = 0;
    m_CacheMisses = 0;
    m_Removes = 0;
}

void ZebHashManager::printDebugInfo()
{
    const ZebMutexLocker locker(&m_Mutex);
    for (const ZebHashHandle& handle : qAsConst(m_Hashes)) {
        const ZebDataHash* const hash = handle.data();
        ZebTdxMessage::debug(QString::asprintf("%p %d %s", static_cast<const void*>(hash),
                                               hash->refCount(),
                                               hash->textIfWhole().toLocal8Bit().constData()));
    }
}

void ZebHashManager::snapshot(QList<ZebSmartPointer<ZebDataHash>>& list) const
{
    const ZebMutexLocker locker(&m_Mutex);
    for (const ZebHashHandle& handle : m_Hashes)
        list.append(ZebSmartPointer<ZebDataHash>(handle.data()));
}

// Not analysed: meant for a quiet system, so it takes no lock.
void ZebHashManager::validateState() ZEBTDX_NO_THREAD_SAFETY_ANALYSIS
{
    QStringList cached;
    QStringList notCached;
    for (const ZebHashHandle& handle : qAsConst(m_Hashes)) {
        const ZebDataHash* const hash = handle.data();
        if (hash->isDontCache())
            notCached.append(hash->textIfWhole());
        else
            cached.append(
                QStringLiteral("%1 (Refs = %2)").arg(hash->textIfWhole()).arg(hash->refCount()));
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
