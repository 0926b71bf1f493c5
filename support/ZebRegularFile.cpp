#include "support/ZebRegularFile.h"

#include <QFile>
#include <QString>

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The process's mask removes what a new file must not have.
constexpr mode_t s_NewFileMode = S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH;

bool statusOf(const QByteArray& path, struct stat& status)
{
    return ::lstat(path.constData(), &status) == 0;
}

QString notRegular()
{
    return QStringLiteral("Not a regular file");
}

// The system's text for a failed open, unless that does not name what is wrong with the file.
QString reasonOf(const QByteArray& path, int error)
{
    struct stat status = {};
    const bool hidesTheKind = error == ELOOP || error == ENXIO;
    if (hidesTheKind && statusOf(path, status) && !S_ISREG(status.st_mode))
        return notRegular();
    return qt_error_string(error);
}

} // namespace

int ZebRegularFile::open(const QString& path, int flags, QString* error)
{
    const QByteArray encoded = QFile::encodeName(path);
    const int descriptor =
        ::open(encoded.constData(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, s_NewFileMode);
    if (descriptor < 0) {
        *error = reasonOf(encoded, errno);
        return -1;
    }
    struct stat status = {};
    if (::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode))
        return descriptor;
    ::close(descriptor);
    *error = notRegular();
    return -1;
}

qint64 ZebRegularFile::size(const QByteArray& path)
{
    struct stat status = {};
    return statusOf(path, status) && S_ISREG(status.st_mode) ? status.st_size : -1;
}

bool ZebRegularFile::remove(const QByteArray& path)
{
    return size(path) < 0 || ::unlink(path.constData()) == 0;
}
