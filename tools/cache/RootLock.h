#pragma once

#include <string>
#include <vector>

/// Keeps other processes of the tool away from cache roots while it exists. It locks a file for
/// each root, outside of all roots, so that the cache itself does not change: in s_Directory, or
/// where that is missing in the directory for temporary files, named after device and inode of the
/// root. The last holder removes the file; a process that is killed leaves the file, but no lock.
///
/// A host takes no such lock unless it is written to.
///
/// Thread safety: an object belongs to one thread at a time.
class RootLock
{
public:
    enum class Use
    {
        /// Shared with other readers.
        Reading,
        /// Exclusive.
        Alone
    };

    RootLock() = default;

    /// Releases the locks.
    ~RootLock();
    RootLock(const RootLock&) = delete;
    RootLock& operator=(const RootLock&) = delete;

    /// Takes the other object's locks.
    RootLock(RootLock&& other) noexcept;

    /// Locks all roots or none, and does not wait. Throws a ToolError with the code EWOULDBLOCK
    /// when another process holds one of them. Skips a root that is missing, and a root whose lock
    /// file cannot be created; isPartial() reports the latter.
    void take(const std::vector<std::string>& roots, Use use);

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

    static constexpr const char* s_Directory = "/run/lock";

    void release();

    std::vector<Held> m_Held;
    bool m_Partial = false;
};
