#include "data/ZebBlockFuture.h"

QAtomicInt ZebBlockFuture::m_NumHashJobs;

ZebBlockFuture::ZebBlockFuture() : m_RefCount(0)
{
    m_NumHashJobs.fetchAndAddOrdered(1);
}

// NOLINTNEXTLINE(bugprone-copy-constructor-init): there is no base, and the asymmetry is intended.
ZebBlockFuture::ZebBlockFuture(const ZebBlockFuture& other) : m_RefCount(other.refCount()) {}

ZebBlockFuture::~ZebBlockFuture()
{
    m_NumHashJobs.fetchAndAddOrdered(-1);
}

ZebBlockFuture& ZebBlockFuture::operator=(const ZebBlockFuture& other)
{
    if (this != &other)
        m_RefCount.storeRelaxed(other.refCount());
    return *this;
}

int ZebBlockFuture::refCount() const
{
    return m_RefCount.loadRelaxed();
}

int ZebBlockFuture::numHashJobs()
{
    return m_NumHashJobs.loadAcquire();
}

void ZebBlockFuture::incRef(void* holder)
{
    Q_UNUSED(holder)
    m_RefCount.fetchAndAddOrdered(1);
}

void ZebBlockFuture::decRef(void* holder)
{
    Q_UNUSED(holder)
    if (m_RefCount.fetchAndAddOrdered(-1) == 1)
        delete this;
}

void ZebBlockFuture::swap(void* from, void* to)
{
    Q_UNUSED(from)
    Q_UNUSED(to)
}
