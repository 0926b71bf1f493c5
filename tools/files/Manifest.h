#pragma once

#include "tools/cache/StorePlace.h"

#include <QByteArray>
#include <QString>
#include <QtGlobal>

#include <string>
#include <vector>

class ErrorReport;
struct StoredFiles;

/// What an ingest leaves for a restore: the files, the hash of each in the store, and the place of
/// that store. docs/MANIFEST.md has the format.
///
/// Names are bytes: relative, with neither "." nor ".." nor an empty element.
struct Manifest
{
    struct File
    {
        std::string m_Path;
        qint64 m_Size = 0;
        /// Text form of the hash of the file's group block, which lists the digests of its blocks.
        /// It depends on every byte of the file, so it also serves as the file's digest.
        QString m_Group;
    };

    StorePlace m_Place;
    qint64 m_BlockSize = 0;
    std::vector<File> m_Files;

    /// The sum of the files' sizes.
    qint64 bytes() const;

    /// The size of the largest block of the files, including their group blocks.
    qint64 largestBlock() const;

    /// The same for one file of this manifest, whether it is among m_Files or not.
    qint64 largestBlockOf(const File& file) const;

    /// How many blocks a file has.
    qint64 blocksOf(const File& file) const;

    /// The manifest as one JSON object per line, for less than 2 GiB.
    QByteArray text() const;

    /// The manifest with this text(). Throws a ToolError, with the number of the line, when the
    /// text is not a manifest, is incomplete, or has names that lead out of a directory.
    static Manifest parse(const QByteArray& text);

    /// Writes the manifest to a file with a ManifestSaver. Returns the path under which a previous
    /// manifest is kept; empty if there was none.
    std::string save(const std::string& path, bool replace) const;

    /// The manifest in a file, with all of its files in memory. Throws a ToolError. ManifestReader
    /// gives them one by one.
    static Manifest load(const std::string& path);

    /// The manifest of the files that are stored completely. Two different files with the same name
    /// are an error, and the first one stays; a file that was given twice is listed once.
    ///
    /// @param place the place of the store; its roots become absolute paths, so that a restore
    /// finds
    ///        them from any working directory
    static Manifest of(const StoredFiles& stored, const StorePlace& place, ErrorReport& errors);

    /// The size of a block that lists this many blocks.
    static qint64 groupBytes(qint64 blocks);

    /// The name under which a file is listed and restored: the path without leading "/" and "..".
    /// Empty when nothing is left.
    static std::string nameFor(const std::string& path);

    /// Whether a name stays below the directory that it is relative to.
    static bool isSafeName(const std::string& name);
};
