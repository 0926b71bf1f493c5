#pragma once

#include "support/ZebTdxExport.h"

#include <QString>

class ZebDataHash;

/// Builds the path of a block's file: `directory` becomes root, sub-cache and bucket, each followed
/// by the native separator, and `fileName` the text form of the hash. Creates nothing on disk. An
/// empty sub-cache leaves two adjacent separators.
///
/// The bucket is the first 32-bit word of the digest, unsigned and in host byte order, modulo
/// `bucketCount`, which must be positive. io/ZebBlockPlace.h has the rules.
///
/// Returns false for a null hash: logs a debug line and leaves both results unchanged. Fatal for a
/// hash without a digest, like ZebDataHash::toString().
///
/// Thread safety: uses its arguments only.
ZEBTDX_EXPORT bool ZebBuildFilename(const ZebDataHash* hash, const QString& root,
                                    const QString& subCache, int bucketCount, QString& directory,
                                    QString& fileName);
