#pragma once

#include "tools/files/FileReader.h"
#include "tools/files/Manifest.h"
#include "tools/files/ManifestText.h"

#include <QByteArray>
#include <QtGlobal>

#include <optional>
#include <string>

/// Reads a manifest from a file, line by line, with memory for one line. Failures are a ToolError.
class ManifestReader
{
public:
    /// Opens the file and reads the first line.
    explicit ManifestReader(const std::string& path);

    /// The manifest without its files.
    const Manifest& head() const { return m_Parser.head(); }

    /// The next file; none after the last one, when the manifest is complete.
    std::optional<Manifest::File> next();

private:
    /// The next line without its line break; none at the end of the file.
    std::optional<QByteArray> nextLine();

    FileReader m_File;
    ManifestParser m_Parser;
    // The bytes at m_Offset that are not taken yet begin at m_Taken.
    QByteArray m_Buffer;
    qint64 m_Offset = 0;
    int m_Taken = 0;
};
