#pragma once

#include "tools/cache/StorePlace.h"

#include <QByteArray>
#include <QString>
#include <QtGlobal>

#include <string>
#include <vector>

/// What an ingest leaves for a restore: which files there were, under which hash each can be had
/// from the store, and where that store lies. docs/MANIFEST.md tells the form.
///
/// Names are bytes: relative, with neither "." nor ".." nor an empty element.
struct Manifest
{
    struct File
    {
        std::string m_Path;
        qint64 m_Size = 0;
        /// Text form of the hash of the file's group block, which lists the digests of its blocks.
        /// As it depends on every byte of the file, it is also the file's digest.
        QString m_Group;
    };

    StorePlace m_Place;
    qint64 m_BlockSize = 0;
    std::vector<File> m_Files;

    /// The sum of the files' sizes.
    qint64 bytes() const;

    /// The size of the largest block that the files need, their group blocks included.
    qint64 largestBlock() const;

    /// The whole manifest, one JSON object on each line.
    QByteArray text() const;

    /// Takes what text() gave. Gives the reason, with the number of the line, when that is no
    /// manifest, not a whole one, or one with names that lead out of a folder; nothing changes
    /// then.
    [[nodiscard]] std::string parse(const QByteArray& text);

    /// Writes text() to a file, which is either there whole afterwards or as it was before.
    ///
    /// @param replace whether a file that is there already may be replaced
    [[nodiscard]] std::string save(const std::string& path, bool replace) const;

    /// Reads a file that save() wrote.
    [[nodiscard]] std::string load(const std::string& path);

    /// The name under which a file is kept and restored: the path without what leads to the root
    /// folder or above the working folder. Empty when nothing is left.
    static std::string nameFor(const std::string& path);

    /// Whether a name stays below the folder that it is relative to.
    static bool isSafeName(const std::string& name);
};
