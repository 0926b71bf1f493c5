#pragma once

#include <string>
#include <vector>

/// Keeps other processes of the tool off cache roots for as long as it lives. It locks a file for
/// each root outside of all roots, so that the cache itself stays as it is: in s_Folder, or where
/// that is missing in the folder for temporary files, named after the device and the node of the
/// root. The last one to leave removes it; a process that is killed leaves the file, but no lock.
///
/// A host takes no such lock unless it was made to.
///
/// Thread safety: an object belongs to one thread at a time.
class RootLock
{
public:
    enum class Use
    {
        /// Together with others that read.
        Reading,
        /// With nobody else.
        Alone
    };

    RootLock();

    /// Gives the locks back.
    ~RootLock();
    RootLock(const RootLock&) = delete;
    RootLock& operator=(const RootLock&) = delete;

    /// Takes over what the other one holds.
    RootLock(RootLock&& other) noexcept;

    /// Locks all roots or none, and does not wait. False when another process has one of them;
    /// `holder` then says which. A root that is missing is passed over, and so is one whose lock
    /// file cannot be made, which isPartial() tells.
    bool take(const std::vector<std::string>& roots, Use use, std::string& holder);

    /// Whether some root could not be locked.
    bool isPartial() const { return m_Partial; }

    /// The lock file of a root; empty when there is no such root.
    static std::string fileOf(const std::string& root);

private:
    struct Held
    {
        std::string m_Path;
        int m_Descriptor;
    };

    static constexpr const char* s_Folder = "/run/lock";

    void release();

    std::vector<Held> m_Held;
    bool m_Partial;
};
