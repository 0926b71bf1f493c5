#pragma once

#include <QtGlobal>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

/// Files and folders of a test, gone at the end of its scope. Names are bytes, relative to the top.
class TemporaryTree
{
public:
    TemporaryTree()
    {
        const char* const wanted = std::getenv("TMPDIR");
        m_Top = wanted == nullptr || *wanted == '\0' ? "/tmp" : wanted;
        m_Top += "/zebtdx-tree-XXXXXX";
        EXPECT_NE(::mkdtemp(m_Top.data()), nullptr) << m_Top;
    }
    // By bytes, as Qt's temporary folder does not remove names that are no text.
    ~TemporaryTree()
    {
        std::error_code error;
        std::filesystem::remove_all(m_Top, error);
        EXPECT_FALSE(error) << m_Top << ": " << error.message();
    }
    TemporaryTree(const TemporaryTree&) = delete;
    TemporaryTree& operator=(const TemporaryTree&) = delete;

    const std::string& top() const { return m_Top; }
    std::string path(const std::string& name) const { return top() + "/" + name; }

    void directory(const std::string& name) const
    {
        EXPECT_EQ(::mkdir(path(name).c_str(), 0755), 0);
    }

    /// Makes the file, or gives it new content.
    void file(const std::string& name, const std::string& content) const
    {
        write(name, content, std::ios::trunc);
    }

    void append(const std::string& name, const std::string& content) const
    {
        write(name, content, std::ios::app);
    }

    void link(const std::string& name, const std::string& target) const
    {
        EXPECT_EQ(::symlink(target.c_str(), path(name).c_str()), 0);
    }

    void pipe(const std::string& name) const { EXPECT_EQ(::mkfifo(path(name).c_str(), 0644), 0); }

    void socket(const std::string& name) const
    {
        const int descriptor = ::socket(AF_UNIX, SOCK_STREAM, 0);
        ASSERT_GE(descriptor, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        const std::string full = path(name);
        ASSERT_LT(full.size(), sizeof address.sun_path);
        full.copy(address.sun_path, full.size());
        EXPECT_EQ(::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address),
                  0);
        ::close(descriptor);
    }

    void remove(const std::string& name) const { EXPECT_EQ(::unlink(path(name).c_str()), 0); }

    void resize(const std::string& name, qint64 size) const
    {
        EXPECT_EQ(::truncate(path(name).c_str(), size), 0);
    }

    /// Sets when the file was modified last.
    void setModified(const std::string& name, qint64 seconds) const
    {
        timespec times[2] = {};
        times[0].tv_sec = seconds;
        times[1].tv_sec = seconds;
        EXPECT_EQ(::utimensat(AT_FDCWD, path(name).c_str(), times, 0), 0);
    }

private:
    void write(const std::string& name, const std::string& content, std::ios::openmode mode) const
    {
        std::ofstream stream(path(name), std::ios::binary | mode);
        stream << content;
        stream.close();
        EXPECT_TRUE(stream) << name;
    }

    std::string m_Top;
};

/// Bytes without repetition, the same for the same seed.
inline std::string mixedBytes(std::size_t size, unsigned int seed)
{
    std::string bytes(size, '\0');
    unsigned int state = seed * 2654435761U + 1;
    for (char& byte : bytes) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}
