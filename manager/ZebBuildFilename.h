#pragma once

#include "support/ZebTdxExport.h"

#include <QString>

class ZebDataHash;

/// The place of a block's file: `directory` becomes root, sub-cache and bucket, each followed by
/// the native separator, and `fileName` the text form of the hash. An empty sub-cache leaves two
/// separators side by side; nothing is tidied, and nothing is made on disk.
///
/// The bucket is the first 32-bit word of the digest, unsigned and in the byte order of the
/// machine, modulo `bucketCount`, which must be positive (io/ZebBlockPlace.h has the rules).
///
/// Returns false for a null hash, with a debug line and both results untouched. Fatal for a hash
/// without a digest, as ZebDataHash::toString() is.
///
/// Thread safety: uses its arguments only.
ZEBTDX_EXPORT bool ZebBuildFilename(const ZebDataHash* hash, const QString& root,
                                    const QString& subCache, int bucketCount, QString& directory,
                                    QString& fileName);
