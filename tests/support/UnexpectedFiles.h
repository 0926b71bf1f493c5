#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>

#include <gtest/gtest.h>

#include <cstring>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

/// Pipes and sockets in the place of a block's file.
namespace UnexpectedFiles {

/// Makes a pipe that no process has open: a blocking open() of it would never return.
inline void makePipe(const QString& path)
{
    EXPECT_EQ(::mkfifo(QFile::encodeName(path).constData(), S_IRUSR | S_IWUSR), 0);
}

/// Whether anything has this path, also a dangling link.
inline bool exists(const QString& path)
{
    struct stat status = {};
    return ::lstat(QFile::encodeName(path).constData(), &status) == 0;
}

/// A listening socket for the length of a scope. Its path may be long.
class Socket
{
public:
    explicit Socket(const QString& path) : m_Descriptor(::socket(AF_UNIX, SOCK_STREAM, 0))
    {
        // The address of a socket is short, so it is made under a short name.
        const QByteArray name = "/tmp/zebtdx-socket-" + QByteArray::number(::getpid());
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::memcpy(static_cast<char*>(address.sun_path), name.constData(),
                    static_cast<std::size_t>(name.size()));
        EXPECT_EQ(::bind(m_Descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address),
                  0);
        EXPECT_EQ(::rename(name.constData(), QFile::encodeName(path).constData()), 0);
    }
    ~Socket() { ::close(m_Descriptor); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

private:
    int m_Descriptor;
};

} // namespace UnexpectedFiles
