#include "io/ZebFileReader.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The first guess for a file that reports no size, such as those in /proc.
constexpr qint64 s_LeastRead = 65536;

ZebFileStamp stampOf(const struct stat& status)
{
    ZebFileStamp stamp;
    stamp.m_Device = status.st_dev;
    stamp.m_Inode = status.st_ino;
    stamp.m_Size = status.st_size;
    stamp.m_ModifiedSeconds = status.st_mtim.tv_sec;
    stamp.m_ModifiedNanoseconds = status.st_mtim.tv_nsec;
    stamp.m_Mode = status.st_mode;
    return stamp;
}

} // namespace

bool ZebFileStamp::operator==(const ZebFileStamp& other) const
{
    return m_Device == other.m_Device && m_Inode == other.m_Inode && m_Size == other.m_Size &&
           m_ModifiedSeconds == other.m_ModifiedSeconds &&
           m_ModifiedNanoseconds == other.m_ModifiedNanoseconds;
}

ZebFileReader::ZebFileReader() : m_Descriptor(-1) {}

ZebFileReader::~ZebFileReader()
{
    close();
}

void ZebFileReader::close()
{
    if (m_Descriptor >= 0)
        ::close(m_Descriptor);
    m_Descriptor = -1;
}

int ZebFileReader::open(const std::string& path, Links links)
{
    close();
    const int follow = links == Links::Refuse ? O_NOFOLLOW : 0;
    // The path may have become a pipe since it was found.
    m_Descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | follow);
    if (m_Descriptor < 0)
        return errno;
    struct stat status = {};
    int error = 0;
    if (::fstat(m_Descriptor, &status) != 0)
        error = errno;
    else if (!S_ISREG(status.st_mode))
        error = s_NotRegular;
    m_Stamp = stampOf(status);
    if (error != 0)
        close();
    return error;
}

bool ZebFileReader::hasChanged() const
{
    struct stat status = {};
    return ::fstat(m_Descriptor, &status) != 0 || stampOf(status) != m_Stamp;
}

int ZebFileReader::readBlock(qint64 offset, qint64 size, QByteArray& block)
{
    // One byte more than the file reports, so that one call also sees the end.
    const qint64 expected = std::max<qint64>(m_Stamp.m_Size - offset, 0) + 1;
    qint64 room = std::min(size, std::max(expected, s_LeastRead));
    block.resize(static_cast<int>(room));
    qint64 done = 0;
    for (;;) {
        if (done == room) {
            if (room == size)
                break;
            room = std::min(size, room * 2);
            block.resize(static_cast<int>(room));
        }
        const ssize_t got = ::pread(m_Descriptor, block.data() + done,
                                    static_cast<std::size_t>(room - done), offset + done);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0) {
            const int error = errno;
            block.clear();
            return error;
        }
        if (got == 0)
            break;
        done += got;
    }
    block.resize(static_cast<int>(done));
    return 0;
}
