#pragma once

#include <QtGlobal>

#include <filesystem>
#include <string>
#include <vector>

#include <sys/types.h>

class ErrorReport;

/// Paths and directories, by bytes.
namespace FileSystem {

struct Entry
{
    std::string m_Name;
    /// Whether the directory itself says that this is a regular file. Not every file system does.
    bool m_IsRegularFile = false;
};

/// The entries of a directory without "." and "..", sorted by the bytes of their names. A failure
/// is an error, and the entries before it are returned.
std::vector<Entry> entries(const std::string& directory, ErrorReport& errors);

/// The path of a name in a directory.
std::string joined(const std::string& directory, const std::string& name);

/// The absolute path. Links stay in it, except where it has "..", which leads to the parent of the
/// directory that a link names. Nothing needs to exist.
std::string absolute(const std::string& path);

/// Whether `path` is `directory` or lies in it. Both are absolute, without links.
bool isWithin(const std::filesystem::path& path, const std::filesystem::path& directory);

/// Writes all of these bytes to an open file. Throws a ToolError.
void write(int descriptor, const void* bytes, qint64 size);

/// Reads up to `size` bytes of an open file; fewer only at its end. Returns how many. Throws a
/// ToolError.
qint64 read(int descriptor, void* bytes, qint64 size);

/// What a file of this mode is instead of a regular file: "is a socket". Empty for a regular file.
std::string whyNotAFile(mode_t mode);

/// Throws the reason as a ToolError unless `path` is a directory.
void requireDirectory(const std::string& path);

/// Renames a file, relative to an open directory or AT_FDCWD, and replaces nothing. Returns the
/// system's error number, 0 for success.
int renameNew(int directory, const std::string& from, const std::string& to);

/// Waits until the names in this directory are on the disk. Throws a ToolError.
void syncDirectory(const std::string& path);

/// Waits until everything that was written to the file system of this directory is on the disk.
/// Throws a ToolError.
void syncAll(const std::string& directory);

} // namespace FileSystem
