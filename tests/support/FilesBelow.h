#pragma once

#include <QDir>
#include <QDirIterator>
#include <QString>
#include <QStringList>

/// The names, without their directories, of all files below these directories that match `pattern`.
inline QStringList filesBelow(const QStringList& directories,
                              const QString& pattern = QStringLiteral("*"))
{
    QStringList names;
    for (const QString& directory : directories) {
        QDirIterator files(directory, {pattern}, QDir::Files, QDirIterator::Subdirectories);
        while (files.hasNext()) {
            files.next();
            names.append(files.fileName());
        }
    }
    return names;
}
