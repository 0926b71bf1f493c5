#pragma once

// Internal: the path of a block file, for reader and writer. Not installed.

#include <QString>

class ZebDataHash;

/// Returns the path of a block's file and creates its directory if missing. A failure to create it
/// shows when the file is opened. Fatal for a hash without a digest.
///
/// Kept on purpose: two separators precede the file name, since the directory ends in a separator.
/// Messages show the path like that.
QString ZebBlockFilePath(const ZebDataHash* hash, const QString& root, const QString& subCache,
                         int bucketCount);
