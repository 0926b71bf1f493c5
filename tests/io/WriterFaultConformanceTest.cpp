// What every form of writer must do when closing or removing a file fails, and when something other
// than a file is in the place of a block or a bucket.

#include "io/WriterForms.h"

#include "support/ResourceLimit.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <memory>
#include <string>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// How many of the next closes of a file that was open for writing report an error.
std::atomic<int> s_FailingCloses{0};
std::atomic<bool> s_FilesCannotBeRemoved{false};

constexpr int s_Attempts = 3;

template <typename Form>
class WriterFaultConformance : public ::testing::Test
{};
TYPED_TEST_SUITE(WriterFaultConformance, WriterForms, WriterFormNames);

bool isFileOpenForWriting(int descriptor)
{
    struct stat status = {};
    return (::fcntl(descriptor, F_GETFL) & O_ACCMODE) == O_WRONLY &&
           ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

// Something in the place of a file or a folder, until remove().
class Obstacle
{
public:
    enum Kind
    {
        Folder,
        Pipe,
        PipeWithAReader,
        Socket,
        Device,
        LinkToAFile,
        LinkToAFolder,
        LinkToNothing,
        LinkToADevice,
        KindCount
    };

    Obstacle(Kind kind, const QString& path) : m_Path(QFile::encodeName(path))
    {
        // Made at a short path, since that of a socket is limited.
        const std::string aside = outside("aside");
        EXPECT_TRUE(make(kind, aside)) << std::strerror(errno);
        EXPECT_EQ(::rename(aside.c_str(), m_Path.constData()), 0) << std::strerror(errno);
        m_Type = type();
    }
    ~Obstacle()
    {
        if (m_Reader >= 0)
            ::close(m_Reader);
    }
    Obstacle(const Obstacle&) = delete;
    Obstacle& operator=(const Obstacle&) = delete;

    // Whether it is still in its place, and what its link points to is as it was.
    bool isUntouched() const
    {
        return type() == m_Type && !QFile::exists(m_Outside.filePath("nothing")) &&
               QDir(m_Outside.filePath("folder")).isEmpty() &&
               (!QFile::exists(m_Outside.filePath("file")) ||
                BlockFiles::read(m_Outside.filePath("file")) == QByteArray(30, 'q')) &&
               !hasBytes();
    }

    void remove() const
    {
        EXPECT_EQ(S_ISDIR(m_Type) ? ::rmdir(m_Path.constData()) : ::unlink(m_Path.constData()), 0);
    }

private:
    std::string outside(const char* name) const { return m_Outside.filePath(name).toStdString(); }

    bool make(Kind kind, const std::string& path)
    {
        switch (kind) {
        case Folder:
            return ::mkdir(path.c_str(), 0755) == 0;
        case Pipe:
            return ::mkfifo(path.c_str(), 0644) == 0;
        case PipeWithAReader:
            return ::mkfifo(path.c_str(), 0644) == 0 &&
                   (m_Reader = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) >= 0;
        case Socket:
            return makeSocket(path);
        case Device:
            // A user without privileges cannot make a device.
            return ::mknod(path.c_str(), S_IFCHR | 0644, makedev(1, 3)) == 0 ||
                   ::mkfifo(path.c_str(), 0644) == 0;
        case LinkToAFile:
            BlockFiles::write(m_Outside.filePath("file"), QByteArray(30, 'q'));
            return ::symlink(outside("file").c_str(), path.c_str()) == 0;
        case LinkToAFolder:
            EXPECT_TRUE(QDir().mkdir(m_Outside.filePath("folder")));
            return ::symlink(outside("folder").c_str(), path.c_str()) == 0;
        case LinkToNothing:
            return ::symlink(outside("nothing").c_str(), path.c_str()) == 0;
        case LinkToADevice:
            return ::symlink("/dev/null", path.c_str()) == 0;
        default:
            return false;
        }
    }

    static bool makeSocket(const std::string& path)
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        if (path.size() >= sizeof address.sun_path)
            return false;
        path.copy(address.sun_path, path.size());
        const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const bool made =
            ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
        ::close(socket);
        return made;
    }

    mode_t type() const
    {
        struct stat status = {};
        return ::lstat(m_Path.constData(), &status) == 0 ? status.st_mode & S_IFMT : 0;
    }

    bool hasBytes() const
    {
        char byte = 0;
        return m_Reader >= 0 && ::read(m_Reader, &byte, 1) > 0;
    }

    QTemporaryDir m_Outside;
    QByteArray m_Path;
    mode_t m_Type = 0;
    int m_Reader = -1;
};

// Writes a block while `kind` is at `place`, until it has failed s_Attempts times, and then without
// it. Returns the text of the last failure.
template <typename Station>
QString writeBehind(Station& station, const std::string& name, Obstacle::Kind kind,
                    const QString& place)
{
    const Obstacle obstacle(kind, place);
    QString last;
    bool isUntouched = true;
    bool isCached = false;
    station.onEachFailure([&](int failures, const QString& text) {
        last = text;
        isUntouched = isUntouched && obstacle.isUntouched();
        isCached = isCached || station.block(name).cached();
        if (failures == s_Attempts)
            obstacle.remove();
    });
    station.queue(name);
    station.start();
    EXPECT_TRUE(station.drain()) << kind;
    EXPECT_TRUE(isUntouched) << kind;
    EXPECT_FALSE(isCached) << kind;
    EXPECT_EQ(station.messages().debugLines().size(), s_Attempts) << kind;
    EXPECT_TRUE(QFileInfo(station.file(name)).isFile()) << kind;
    EXPECT_FALSE(QFileInfo(station.file(name)).isSymLink()) << kind;
    EXPECT_EQ(BlockFiles::read(station.file(name)),
              BlockFiles::fileOf(QByteArray::fromStdString(name)));
    EXPECT_EQ(station.writer().requestsHandled(), 1) << kind;
    return last;
}

} // namespace

// Replace the system's functions for everything that this program loads.
extern "C" __attribute__((visibility("default"))) int close(int descriptor)
{
    static const auto system = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "close"));
    const bool fails = s_FailingCloses > 0 && isFileOpenForWriting(descriptor);
    const int result = system(descriptor);
    if (!fails)
        return result;
    --s_FailingCloses;
    errno = EIO;
    return -1;
}

extern "C" __attribute__((visibility("default"))) int unlink(const char* path)
{
    static const auto system = reinterpret_cast<int (*)(const char*)>(dlsym(RTLD_NEXT, "unlink"));
    if (!s_FilesCannotBeRemoved)
        return system(path);
    errno = EROFS;
    return -1;
}

TYPED_TEST(WriterFaultConformance, AnErrorOfCloseIsAFailedWrite)
{
    TypeParam station;
    const std::string name(30000, 'x');
    const QString file = station.file(name);
    const QString expected = "Cannot Write to File " + file + " : '" + qt_error_string(EIO) +
                             "' - wrote -1 bytes (expecting " +
                             QString::number(payloadBytes(name)) + " bytes)";
    QStringList emitted;
    bool fileIsLeft = false;
    bool isCached = false;
    station.onEachFailure([&](int, const QString& text) {
        emitted.append(text);
        fileIsLeft = fileIsLeft || QFile::exists(file);
        isCached = isCached || station.block(name).cached();
    });
    station.queue(name);
    s_FailingCloses = s_Attempts;
    station.start();
    EXPECT_TRUE(station.drain());
    EXPECT_EQ(s_FailingCloses, 0);
    EXPECT_EQ(emitted, QStringList({expected, expected, expected}));
    EXPECT_EQ(station.messages().debugLines(), emitted);
    EXPECT_FALSE(fileIsLeft);
    EXPECT_FALSE(isCached);
    EXPECT_EQ(BlockFiles::read(file), BlockFiles::fileOf(QByteArray::fromStdString(name)));
    EXPECT_TRUE(station.block(name).cached());
    EXPECT_EQ(station.writer().requestsHandled(), 1);
    EXPECT_EQ(station.writer().bytesWritten(), payloadBytes(name));
}

TYPED_TEST(WriterFaultConformance, AnIncompleteFileThatCannotBeRemovedIsWrittenAgain)
{
    TypeParam station;
    const std::string name(50000, 'x');
    ASSERT_TRUE(station.block(name).compress(0));
    std::unique_ptr<ResourceLimit> full;
    bool isCached = false;
    qint64 left = 0;
    station.onEachFailure([&](int failures, const QString&) {
        isCached = isCached || station.block(name).cached();
        left = QFileInfo(station.file(name)).size();
        if (failures < s_Attempts)
            return;
        full.reset();
        s_FilesCannotBeRemoved = false;
    });
    station.queue(name);
    s_FilesCannotBeRemoved = true;
    full = std::make_unique<ResourceLimit>(RLIMIT_FSIZE, 20000);
    station.start();
    const bool drained = station.drain();
    full.reset();
    s_FilesCannotBeRemoved = false;
    EXPECT_TRUE(drained);
    EXPECT_FALSE(isCached);
    EXPECT_GT(left, BlockFiles::s_HeaderBytes);
    const QByteArray payload = BlockInside::storedBytes(station.block(name));
    EXPECT_EQ(BlockFiles::read(station.file(name)), BlockFiles::fileBytes(50000, payload));
    EXPECT_EQ(station.writer().requestsHandled(), 1);
}

TYPED_TEST(WriterFaultConformance, OnlyAFileIsABlock)
{
    for (int kind = 0; kind < Obstacle::KindCount; ++kind) {
        TypeParam station;
        const std::string name = "in its place " + std::to_string(kind);
        ASSERT_TRUE(QDir().mkpath(station.bucket(name)));
        const QString error = kind == Obstacle::Folder ? qt_error_string(EISDIR)
                                                       : QStringLiteral("Not a regular file");
        EXPECT_EQ(writeBehind(station, name, static_cast<Obstacle::Kind>(kind), station.file(name)),
                  "Cannot Open File " + station.file(name) + " : '" + error + "'");
    }
}

TYPED_TEST(WriterFaultConformance, WhatIsNoFolderInThePlaceOfABucketIsAFailedWrite)
{
    for (int kind = Obstacle::Pipe; kind < Obstacle::KindCount; ++kind) {
        if (kind == Obstacle::LinkToAFolder)
            continue;
        TypeParam station;
        const std::string name = "in its bucket " + std::to_string(kind);
        const int error = kind == Obstacle::LinkToNothing ? ENOENT : ENOTDIR;
        EXPECT_EQ(
            writeBehind(station, name, static_cast<Obstacle::Kind>(kind), station.bucket(name)),
            "Cannot Open File " + station.file(name) + " : '" + qt_error_string(error) + "'");
    }
}
