#pragma once

#include <QtGlobal>

#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

class ErrorReport;

/// Finds the files below the paths that a user gives, in an order that depends on the names only:
/// the paths as given, and the entries of a directory sorted by the bytes of their names.
///
/// A given path that is a symbolic link is followed; links below it are counted and skipped.
/// Sockets, pipes and devices are errors, and so is anything that cannot be reached. An error never
/// ends the walk.
///
/// A file that is reachable through several paths counts once, unless its own path, or that of a
/// directory above it, is given several times: then it counts as often as that path is given. Each
/// hard link is a separate file.
///
/// Names are bytes and never decoded, so names that are not valid text are files like any other.
class FileWalker
{
public:
    struct File
    {
        std::string m_Path;
        /// As it was when the file was found.
        qint64 m_Size;
    };

    explicit FileWalker(ErrorReport& errors);

    /// Leaves out this directory and everything below it from now on: a cache among the files that
    /// are ingested into it. Ignores a directory that does not exist.
    void leaveOut(const std::string& directory);

    /// Adds the files of a given path.
    void add(const std::string& path);

    const std::vector<File>& files() const { return m_Files; }

    /// The sum of the files' sizes, at most the largest number.
    qint64 bytes() const { return m_Bytes; }

    /// How many symbolic links were skipped.
    qint64 skippedLinks() const { return m_SkippedLinks; }

private:
    using Names = std::unordered_set<std::string>;

    /// Handles whatever is at `path`, whose status is known.
    ///
    /// @param realPath the path with all links resolved, which identifies it
    void addAny(const std::string& path, const std::string& realPath, unsigned int mode,
                qint64 size, Names& seen);

    void addDirectory(const std::string& path, const std::string& realPath, Names& seen);

    ErrorReport& m_Errors;
    Names m_LeftOut;
    std::vector<File> m_Files;
    qint64 m_Bytes = 0;
    qint64 m_SkippedLinks = 0;

    // How often each path was given.
    std::unordered_map<std::string, std::size_t> m_TimesGiven;

    // What the paths reached that were given for the first time, for the second time, and so on.
    std::vector<Names> m_Seen;
};
