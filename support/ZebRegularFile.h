#pragma once

// Internal: careful access to the files below a cache root. Not installed.

#include <QByteArray>

class QString;

namespace ZebRegularFile {

/// Opens the regular file at `path` and returns its descriptor, which the caller closes.
///
/// Returns -1 and sets `error` to the reason when the file cannot be opened, and for anything else
/// than a regular file: a pipe without a reader would block the caller, and a link in the place of
/// the file could lead out of the root. Does neither wait nor follow that link.
///
/// @param flags of open(2): access, O_CREAT, O_APPEND; O_TRUNC must not be among them, since it
///        takes effect before the kind of the file is known
///
/// Thread safety: any thread may call it.
int open(const QString& path, int flags, QString* error);

/// The size in bytes of the regular file at `path`, which is as QFile::encodeName() makes it. -1
/// when there is none; a link is not followed. Allocates nothing.
qint64 size(const QByteArray& path);

/// Removes the regular file at `path`, and nothing of another kind. Returns whether there is no
/// regular file afterwards. Allocates nothing.
bool remove(const QByteArray& path);

} // namespace ZebRegularFile
