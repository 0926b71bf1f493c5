#include "tools/files/FileReader.h"

#include "tools/files/FileKind.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The first guess for a file that does not tell its size, as those that a kernel makes up.
constexpr qint64 s_LeastRead = 65536;

FileStamp stampOf(const struct stat& status)
{
    FileStamp stamp;
    stamp.m_Device = status.st_dev;
    stamp.m_Node = status.st_ino;
    stamp.m_Size = status.st_size;
    stamp.m_ModifiedSeconds = status.st_mtim.tv_sec;
    stamp.m_ModifiedNanoseconds = status.st_mtim.tv_nsec;
    stamp.m_Mode = status.st_mode;
    return stamp;
}

} // namespace

bool FileStamp::operator==(const FileStamp& other) const
{
    return m_Device == other.m_Device && m_Node == other.m_Node && m_Size == other.m_Size &&
           m_ModifiedSeconds == other.m_ModifiedSeconds &&
           m_ModifiedNanoseconds == other.m_ModifiedNanoseconds;
}

FileReader::FileReader() : m_Descriptor(-1) {}

FileReader::~FileReader()
{
    close();
}

void FileReader::close()
{
    if (m_Descriptor >= 0)
        ::close(m_Descriptor);
    m_Descriptor = -1;
}

std::string FileReader::open(const std::string& path, Links links)
{
    close();
    const int follow = links == Links::Refuse ? O_NOFOLLOW : 0;
    // Something else may have taken the file's place since it was found; opening must not block.
    m_Descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | follow);
    if (m_Descriptor < 0)
        return FileKind::errorText(errno);
    struct stat status = {};
    std::string reason;
    if (::fstat(m_Descriptor, &status) != 0)
        reason = FileKind::errorText(errno);
    else
        reason = FileKind::whyNotAFile(status.st_mode);
    if (!reason.empty()) {
        close();
        return reason;
    }
    m_Stamp = stampOf(status);
    return {};
}

bool FileReader::hasChanged() const
{
    struct stat status = {};
    return ::fstat(m_Descriptor, &status) != 0 || stampOf(status) != m_Stamp;
}

std::string FileReader::readBlock(qint64 offset, qint64 size, QByteArray& block)
{
    // One byte more than the file says it has, so that its end is seen in the same go.
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
            return FileKind::errorText(error);
        }
        if (got == 0)
            break;
        done += got;
    }
    block.resize(static_cast<int>(done));
    return {};
}
