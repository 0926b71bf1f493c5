#pragma once

#include <QtGlobal>

#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

class ErrorReport;

/// The files below the paths that a user gives, in an order that depends on the names alone: the
/// paths as given, and what a folder holds sorted by the bytes of the names.
///
/// A path that is given is followed when it is a symbolic link; links met on the way are counted
/// and not followed. Sockets, pipes and devices, given or met, are errors, and so is what cannot be
/// reached. An error never ends the walk.
///
/// A file that is reached through several paths counts once, unless its own path, or that of a
/// folder above it, is given more than once: then it counts as often as that path is given. Hard
/// links are files of their own.
///
/// Names are bytes and never decoded, so one that is no valid text is walked like any other.
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

    /// Leaves out this folder and what is below it, from now on: a cache that lies among the files
    /// that go into it. Nothing happens when it does not exist.
    void leaveOut(const std::string& folder);

    /// Adds the files that a given path leads to.
    void add(const std::string& path);

    const std::vector<File>& files() const { return m_Files; }

    /// The sum of the files' sizes.
    qint64 bytes() const { return m_Bytes; }

    /// How many symbolic links were met and not followed.
    qint64 skippedLinks() const { return m_SkippedLinks; }

private:
    using Names = std::unordered_set<std::string>;

    /// Handles what stands at `path`, whose status has been asked for already.
    ///
    /// @param realPath the path with all links resolved, which identifies the thing
    void addThing(const std::string& path, const std::string& realPath, unsigned int mode,
                  qint64 size, Names& seen);

    void addFolder(const std::string& path, const std::string& realPath, Names& seen);

    ErrorReport& m_Errors;
    Names m_LeftOut;
    std::vector<File> m_Files;
    qint64 m_Bytes;
    qint64 m_SkippedLinks;

    // How often each path was given.
    std::unordered_map<std::string, std::size_t> m_TimesGiven;

    // What was reached by the paths given for the first time, for the second time, and so on.
    std::vector<Names> m_Seen;
};
