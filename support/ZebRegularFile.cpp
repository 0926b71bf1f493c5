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

} // namespace

int ZebRegularFile::open(const QString& path, int flags, QString* error)
{
    const int descriptor = ::open(QFile::encodeName(path).constData(),
                                  flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, s_NewFileMode);
    struct stat status = {};
    if (descriptor < 0 || ::fstat(descriptor, &status) != 0) {
        *error = qt_error_string(errno);
    } else if (!S_ISREG(status.st_mode)) {
        *error = QStringLiteral("Not a regular file");
    } else {
        return descriptor;
    }
    if (descriptor >= 0)
        ::close(descriptor);
    return -1;
}
