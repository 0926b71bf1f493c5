#include "io/ZebCacheRootLock.h"

#include <QFile>

#include <cerrno>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

ZebCacheRootLock::ZebCacheRootLock() : m_Descriptor(-1) {}

ZebCacheRootLock::~ZebCacheRootLock()
{
    unlock();
}

ZebCacheRootLock::ZebCacheRootLock(ZebCacheRootLock&& other) noexcept
    : m_Descriptor(std::exchange(other.m_Descriptor, -1)), m_ErrorText(std::move(other.m_ErrorText))
{}

ZebCacheRootLock::Result ZebCacheRootLock::tryLock(const QString& root, Kind kind)
{
    unlock();
    m_ErrorText.clear();
    m_Descriptor = ::open(QFile::encodeName(root).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (m_Descriptor >= 0 &&
        ::flock(m_Descriptor, (kind == Exclusive ? LOCK_EX : LOCK_SH) | LOCK_NB) == 0)
        return Locked;
    const int error = errno;
    unlock();
    if (error == EWOULDBLOCK)
        return InUse;
    m_ErrorText = QString::fromStdString(std::generic_category().message(error));
    return Failed;
}

void ZebCacheRootLock::unlock()
{
    // Closing releases it: no other descriptor of this process shares the lock.
    if (m_Descriptor >= 0)
        ::close(std::exchange(m_Descriptor, -1));
}

bool ZebCacheRootLock::isLocked() const
{
    return m_Descriptor >= 0;
}

QString ZebCacheRootLock::errorText() const
{
    return m_ErrorText;
}
