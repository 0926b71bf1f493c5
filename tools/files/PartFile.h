#pragma once

#include <QtGlobal>

#include <string>

class OpenDirectory;

/// A file that is written under another name and gets its own name only when it is whole. Failures
/// are a ToolError.
///
/// The part is locked, so that a part without a lock is what a killed process left: it is replaced.
class PartFile
{
public:
    /// Creates the part. Throws a ToolError with the code EWOULDBLOCK when another process, or
    /// another thread, is writing it.
    PartFile(const OpenDirectory& directory, const std::string& part);

    /// Removes the part unless publish() has renamed it.
    ~PartFile();
    PartFile(const PartFile&) = delete;
    PartFile& operator=(const PartFile&) = delete;

    void write(const void* bytes, qint64 size);

    /// Renames the part, which is whole. Throws a ToolError with the code EEXIST, and replaces
    /// nothing, when something has that name.
    void publish(const std::string& name);

    /// The name of the part of a file with this name. Short enough for every file system, and the
    /// same each time. Different numbers give different names.
    static std::string nameFor(const std::string& name, int number);

    /// Whether this could be the name of a part.
    static bool isPartName(const std::string& name);

private:
    const OpenDirectory& m_Directory;
    const std::string m_Part;
    int m_Descriptor;
};
