// The references to a hash, and the lock that keeps other threads from changing them.

#include "hash/ZebDataHash.h"

#include "hash/ZebHashManager.h"
#include "hash/ZebHashWord.h"
#include "manager/ZebDataBlockManager.h"
#include "support/ZebForkWatch.h"
#include "support/ZebTdxMessage.h"
#include "support/ZebTestPoint.h"

using namespace ZebHashWord;

namespace {

// A count that overflowed would become a mark.
void requireRoom(quint64 word)
{
    if (references(word) == s_MostReferences)
        ZebTdxMessage::fatal(QStringLiteral("Too Many References to One Hash"));
}

void requireHolder(quint64 word)
{
    if (references(word) < 1)
        ZebTdxMessage::fatal(QStringLiteral("No Positive Ref Count in Dec Ref"));
}

} // namespace

int ZebDataHash::refCount() const
{
    return references(m_Word.load(std::memory_order_relaxed));
}

// Not analysed: it has no attribute, see the header.
bool ZebDataHash::tryLock() ZEBTDX_NO_THREAD_SAFETY_ANALYSIS
{
    if (!m_Mutex.tryLock())
        return false;
    // Acquire: what other threads did before the mark is seen by the owner. Release: they see what
    // the owner did before, should they find the mark.
    if (m_LockCount++ == 0)
        m_Word.fetch_or(s_Locked, std::memory_order_acq_rel);
    return true;
}

// Not analysed: tryLock() has no attribute, see the header.
void ZebDataHash::unlock() ZEBTDX_NO_THREAD_SAFETY_ANALYSIS
{
    if (--m_LockCount == 0)
        m_Word.fetch_and(~s_Locked, std::memory_order_release);
    m_Mutex.unlock();
}

bool ZebDataHash::tryAddReference()
{
    quint64 word = m_Word.load(std::memory_order_relaxed);
    for (;;) {
        if (ZEBTDX_GUARD(OpenSeesLocked, (word & s_Locked) != 0))
            return false;
        requireRoom(word);
        // Relaxed: the caller holds a reference, so it has seen what the new holder needs.
        if (m_Word.compare_exchange_weak(word, word + s_Reference, std::memory_order_relaxed))
            return true;
    }
}

bool ZebDataHash::tryIncRef()
{
    if (tryAddReference())
        return true;
    if (!m_Mutex.tryLock())
        return false;
    // Locked by this thread, or no more.
    addReference();
    m_Mutex.unlock();
    return true;
}

void ZebDataHash::awaitUnlocked()
{
    const ZebTdxMutexLocker locker(&m_Mutex);
}

quint64 ZebDataHash::addReference()
{
    quint64 word = m_Word.load(std::memory_order_relaxed);
    do {
        requireRoom(word);
    } while (!m_Word.compare_exchange_weak(word, word + s_Reference, std::memory_order_acq_rel,
                                           std::memory_order_relaxed));
    return word;
}

void ZebDataHash::incRef(void* holder)
{
    Q_UNUSED(holder)
    if (tryAddReference())
        return;
    // Locked: by another thread, for which this one waits, or by this one.
    const ZebTdxMutexLocker locker(&m_Mutex);
    addReference();
}

ZebSmartPointer<ZebDataHash> ZebDataHash::holdUnlessEnding()
{
    // With the mutex held a count of 0 is final, and no last release decides meanwhile.
    const ZebTdxMutexLocker locker(&m_Mutex);
    if (ZEBTDX_GUARD(HoldNotEnding, refCount() == 0))
        return {};
    return ZebSmartPointer<ZebDataHash>(this);
}

bool ZebDataHash::removeUnlessLast()
{
    quint64 word = m_Word.load(std::memory_order_relaxed);
    do {
        requireHolder(word);
        if (references(word) == 1)
            return false;
    } while (!m_Word.compare_exchange_weak(word, word - s_Reference, std::memory_order_release,
                                           std::memory_order_relaxed));
    return true;
}

bool ZebDataHash::removeReference()
{
    // Acquire: the thread that ends the hash sees what all other holders did.
    const quint64 before = m_Word.fetch_sub(s_Reference, std::memory_order_acq_rel);
    return references(before) == 1;
}

void ZebDataHash::decRef(void* holder)
{
    Q_UNUSED(holder)
    quint64 word = m_Word.load(std::memory_order_relaxed);
    requireHolder(word);
    // The locks below may have been held by threads that this process does not have.
    if (ZebForkWatch::isStoreOfParent())
        return;
    // The common release takes no lock. A last one must not: a look-up may find the hash meanwhile.
    while ((word & s_Locked) == 0 &&
           !ZEBTDX_GUARD(LastReleaseUnderRegistry, references(word) == 1)) {
        // Release: what this holder did is seen by the thread that ends the hash.
        requireHolder(word);
        if (m_Word.compare_exchange_weak(word, word - s_Reference, std::memory_order_release,
                                         std::memory_order_relaxed))
            return;
    }
    if (!ZebHashManager::instance().derefRemoveHash(this))
        return;
    ZEBTDX_POINT(LastReleaseDecided);
    // No look-up can find this hash any more, so its block is freed, and then the hash itself. No
    // lock is held here: freeing a block starts with the outermost one.
    ZebDataBlockManager::instance().freeBlock(this, false, false);
    delete this;
}
