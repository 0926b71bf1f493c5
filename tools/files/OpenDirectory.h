#pragma once

#include <string>

/// An open directory. Files are reached through its descriptor, so that nothing that happens to its
/// path meanwhile leads them elsewhere.
///
/// Failures are a ToolError.
class OpenDirectory
{
public:
    /// Opens the directory at `path`, links included, and creates it if missing.
    static OpenDirectory at(const std::string& path);

    /// The directory at this relative path below `directory`, whose elements are neither "." nor
    /// "..". Creates what is missing, and refuses to follow a link.
    static OpenDirectory below(const OpenDirectory& directory, const std::string& path);

    ~OpenDirectory();
    OpenDirectory(const OpenDirectory&) = delete;
    OpenDirectory& operator=(const OpenDirectory&) = delete;
    OpenDirectory(OpenDirectory&& other) noexcept;

    int descriptor() const { return m_Descriptor; }

private:
    explicit OpenDirectory(int descriptor) : m_Descriptor(descriptor) {}

    int m_Descriptor;
};
