#pragma once

#include <QtGlobal>

#include <string>

class FileWriter;
struct Manifest;

/// Writes a manifest to a file, which afterwards is either complete or as it was before, also after
/// a power loss: line by line to a new file next to it, which is fsynced, read back, compared, and
/// renamed. Failures are a ToolError.
class ManifestSaver
{
public:
    ManifestSaver(const Manifest& manifest, std::string path);

    /// Writes the file. Must be called once.
    ///
    /// @param replace whether an existing file may be replaced. If its bytes differ, it is kept
    ///        under another name: the path with the first free number, ".1", ".2" and so on
    ///
    /// @return that path; empty when nothing is kept
    std::string save(bool replace);

private:
    void write(FileWriter& file) const;

    /// Whether the new file has exactly the manifest.
    bool isWritten() const;

    /// Keeps the existing file under a free name. Returns its path, empty where it is the same as
    /// the new one, or where there is none.
    std::string keepPrevious() const;

    const Manifest& m_Manifest;
    const std::string m_Path;
    std::string m_Part;
};
