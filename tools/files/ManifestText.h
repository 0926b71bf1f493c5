#pragma once

#include "tools/files/Manifest.h"

#include <QByteArray>
#include <QtGlobal>

#include <optional>

/// The lines of a manifest. docs/MANIFEST.md has the format.
namespace ManifestText {

/// The longest line that is read. Paths have up to 4096 bytes; the first line has all roots.
constexpr qint64 s_MostLineBytes = 16LL * 1024 * 1024;

/// The largest number, and so the largest sum of sizes: JSON numbers are exact up to here.
constexpr qint64 s_LargestNumber = 9007199254740992;

extern const char* const s_NoManifest;

/// The first line, a file's line, and the last line, each with its line break.
QByteArray headLine(const Manifest& manifest);
QByteArray fileLine(const Manifest::File& file);
QByteArray lastLine(qint64 files, qint64 bytes);

} // namespace ManifestText

/// Reads the lines of a manifest one by one, in their order. Failures are a ToolError, with the
/// number of the line.
class ManifestParser
{
public:
    /// Takes the next line, given without its line break. Returns the file that it names; none for
    /// the first and the last line.
    std::optional<Manifest::File> take(const char* line, qint64 size);

    /// Call this after the last line. Throws when the manifest is incomplete.
    void finish() const;

    /// The manifest without its files. Complete after the first line.
    const Manifest& head() const { return m_Head; }

    /// How many lines there were.
    qint64 lines() const { return m_Lines; }

private:
    std::optional<Manifest::File> takeFile(const char* line, qint64 size);

    Manifest m_Head;
    qint64 m_Lines = 0;
    qint64 m_Files = 0;
    qint64 m_Bytes = 0;
    bool m_IsComplete = false;
};
