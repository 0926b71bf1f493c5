#include "hash/ZebHashManager.h"

#include "support/ZebTdxMessage.h"

#include <QMutexLocker>
#include <QStringList>
#include <QThread>

#include <memory>

namespace {

// A host that runs for days counts past the end of an int; the counter then goes on from below.
void countUp(int& counter)
{
    counter = static_cast<int>(static_cast<unsigned>(counter) + 1U);
}

} // namespace

ZebHashManager::ZebHashManager() : m_Mutex(QMutex::Recursive)
{
    ZebTdxMessage::debug(QString::asprintf("Created Hash Manager in thread %p",
                                           static_cast<void*>(QThread::currentThread())));
}

ZebHashManager::~ZebHashManager() = default;

ZebHashManager& ZebHashManager::instance()
{
    static ZebHashManager manager;
    return manager;
}

ZebSmartPointer<ZebDataHash> ZebHashManager::getHash(unsigned char* bytes, qint64 length)
{
    return intern(new ZebDataHash(bytes, length, ZebDataHash::Hash512));
}

ZebSmartPointer<ZebDataHash> ZebHashManager::getHash(const QByteArray& bytes)
{
    // The digest only reads; the pointer is not const for the sake of hosts with plain buffers.
    return getHash(reinterpret_cast<unsigned char*>(const_cast<char*>(bytes.constData())),
                   bytes.size());
}

ZebSmartPointer<ZebDataHash> ZebHashManager::getHash(const QString& text)
{
    return intern(new ZebDataHash(text));
}

ZebSmartPointer<ZebDataHash> ZebHashManager::getDigested(const unsigned char* digest)
{
    // The hash only reads.
    return intern(new ZebDataHash(ZebDataHash::Hash512, const_cast<unsigned char*>(digest)));
}

ZebSmartPointer<ZebDataHash> ZebHashManager::intern(ZebDataHash* fresh)
{
    std::unique_ptr<ZebDataHash> owned(fresh);
    QMutexLocker locker(&m_Mutex);
    countUp(m_Requests);
    const auto entry = m_Hashes.constFind(ZebHashHandle(fresh));
    if (entry == m_Hashes.constEnd()) {
        // The entry comes first, as a table that cannot grow must leave nothing half made.
        m_Hashes.insert(ZebHashHandle(fresh));
        const ZebSmartPointer<ZebDataHash> result(owned.release());
        countUp(m_CacheMisses);
        // The registry is free before a caller sees the hash: dropping it takes the delete lock,
        // which stands outside this one.
        locker.unlock();
        return result;
    }
    countUp(m_CacheHits);
    ZebDataHash* const registered = entry->data();
    owned.reset();
    // A bare count, taken without the hash's mutex: a last release under way decides with the
    // registry locked, and so sees it. The mutex must not be waited for here.
    registered->m_RefCount.fetchAndAddOrdered(1);
    // Giving the bare count back may itself be the last release, and so must find the registry
    // free.
    locker.unlock();
    ZebSmartPointer<ZebDataHash> result(registered);
    registered->decRef(&result);
    return result;
}

ZebSmartPointer<ZebDataHash> ZebHashManager::addHash(ZebDataHash* hash)
{
    const QMutexLocker locker(&m_Mutex);
    return addHash_Unlocked(hash);
}

ZebSmartPointer<ZebDataHash> ZebHashManager::addHash_Unlocked(ZebDataHash* hash)
{
    if (hash == nullptr)
        return {};
    const auto entry = m_Hashes.constFind(ZebHashHandle(hash));
    if (entry == m_Hashes.constEnd()) {
        m_Hashes.insert(ZebHashHandle(hash));
        countUp(m_CacheMisses);
        return ZebSmartPointer<ZebDataHash>(hash);
    }
    countUp(m_CacheHits);
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
        // That looked like the last release. The count goes back, so that the decision can be made
        // with the registry locked, where no look-up can cross it.
        hash->m_RefCount.fetchAndAddOrdered(1);
    }
    const QMutexLocker registryLocker(&m_Mutex);
    const ZebTdxMutexLocker hashLocker(&hash->m_Mutex);
    if (hash->m_RefCount.fetchAndAddOrdered(-1) != 1)
        return false;
    const auto entry = m_Hashes.find(ZebHashHandle(hash));
    // Only this very object is erased: an unregistered twin ends without touching the entry of the
    // content.
    if (entry != m_Hashes.end() && entry->data() == hash) {
        countUp(m_Removes);
        m_Hashes.erase(entry);
    }
    return true;
}

bool ZebHashManager::isHashLive(const QString& text) const
{
    ZebDataHash wanted(text);
    const QMutexLocker locker(&m_Mutex);
    return m_Hashes.contains(ZebHashHandle(&wanted));
}

int ZebHashManager::hashCount() const
{
    const QMutexLocker locker(&m_Mutex);
    return m_Hashes.size();
}

void ZebHashManager::dumpStats()
{
    const QMutexLocker locker(&m_Mutex);
    ZebTdxMessage::debug(QStringLiteral("==== ZebTdx Hash Stats ===="));
    ZebTdxMessage::debug(QString::asprintf("Cache Hits %d", m_CacheHits));
    ZebTdxMessage::debug(QString::asprintf("Cache Misses %d", m_CacheMisses));
    ZebTdxMessage::debug(QString::asprintf("Requests %d", m_Requests));
    ZebTdxMessage::debug(QString::asprintf("Removes %d", m_Removes));
    ZebTdxMessage::debug(QString::asprintf("Registered %d", m_Hashes.size()));
    ZebTdxMessage::debug(QString::asprintf("Existant %d", ZebDataHash::hashCount()));
    // Kept on purpose: holders are not counted, and the line stands with the constant -1.
    ZebTdxMessage::debug(QString::asprintf("HashPtrs %d", -1));
}

void ZebHashManager::clearStats()
{
    const QMutexLocker locker(&m_Mutex);
    m_Requests = 0;
    m_CacheHits = 0;
    m_CacheMisses = 0;
    m_Removes = 0;
}

void ZebHashManager::printDebugInfo()
{
    const QMutexLocker locker(&m_Mutex);
    for (const ZebHashHandle& handle : qAsConst(m_Hashes)) {
        const ZebDataHash* const hash = handle.data();
        ZebTdxMessage::debug(QString::asprintf("%p %d %s", static_cast<const void*>(hash),
                                               hash->refCount(),
                                               hash->toString().toLocal8Bit().constData()));
    }
}

void ZebHashManager::snapshot(QList<ZebSmartPointer<ZebDataHash>>& list) const
{
    const QMutexLocker locker(&m_Mutex);
    for (const ZebHashHandle& handle : m_Hashes)
        list.append(ZebSmartPointer<ZebDataHash>(handle.data()));
}

void ZebHashManager::validateState()
{
    QStringList cached;
    QStringList notCached;
    for (const ZebHashHandle& handle : qAsConst(m_Hashes)) {
        const ZebDataHash* const hash = handle.data();
        if (hash->isDontCache())
            notCached.append(hash->toString());
        else
            cached.append(
                QStringLiteral("%1 (Refs = %2)").arg(hash->toString()).arg(hash->refCount()));
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
