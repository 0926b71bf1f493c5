#pragma once

// Internal: directories by descriptor. Not installed.

#include <QtGlobal>

#include <functional>
#include <string>

/// A directory of a tree whose links must not lead out of it. No operation on a name in the
/// directory follows a link, and a directory that is replaced while it is open stays the same one.
///
/// Operations on a directory that could not be opened do nothing.
///
/// Thread safety: an object belongs to one thread at a time.
class ZebDirectory
{
public:
    /// What a directory entry is.
    enum class Kind
    {
        File,
        Directory,
        /// A link, a pipe, a socket or a device.
        Other
    };

    /// Opens the directory at `path`, in which links are followed: the top of the tree.
    explicit ZebDirectory(const std::string& path);
    ~ZebDirectory();
    ZebDirectory(ZebDirectory&& other) noexcept;
    ZebDirectory& operator=(ZebDirectory&& other) noexcept;
    ZebDirectory(const ZebDirectory&) = delete;
    ZebDirectory& operator=(const ZebDirectory&) = delete;

    /// Opens the directory at a path below this one. Not open when any element of it is a link.
    ZebDirectory below(const std::string& path) const;

    bool isOpen() const { return m_Descriptor >= 0; }

    /// Calls `visit` for every entry but "." and "..", in the order in which the system returns
    /// them. Stops at the first error.
    void forEach(const std::function<void(const char* name, Kind kind)>& visit) const;

    /// The size of a regular file in bytes, -1 for anything else.
    qint64 fileSize(const std::string& name) const;

    /// Removes a regular file. Ignores a failure.
    void removeFile(const std::string& name) const;

private:
    explicit ZebDirectory(int descriptor);

    Kind kindOf(const char* name) const;

    int m_Descriptor;
};
