#pragma once

// Internal: the path under which writer and reader meet. Not installed.

#include <QString>

class ZebDataHash;

/// The path of a block's file, with its directory made when that is missing; whether that worked
/// shows when the file is opened. Fatal for a hash without a digest.
///
/// Kept on purpose: the separator before the file name stands twice, as the directory ends in one
/// already. Messages show the path so.
QString ZebBlockFilePath(const ZebDataHash* hash, const QString& root, const QString& subCache,
                         int bucketCount);
