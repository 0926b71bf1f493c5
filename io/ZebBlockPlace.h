#pragma once

// Internal: where a block's file lies. Not installed.

#include <QChar>
#include <QString>

class ZebBlockName;

/// The place of a block's file in a cache: the index of its root and the number of its bucket. Both
/// follow from the digest alone, so a file that lies anywhere else is never found, and every
/// existing cache depends on these rules.
///
/// Thread safety: every function uses its arguments only.
struct ZebBlockPlace
{
    /// Index of the root. -1 when the name leads to none: no store can write such a block.
    int m_Root = -1;
    int m_Bucket = 0;

    /// The root follows from this many characters at the beginning of the text form.
    static constexpr int s_RootCharacters = 4;

    /// @param roots how many roots the store has, at least 1
    /// @param buckets how many buckets each root has, at least 1
    static ZebBlockPlace of(const ZebBlockName& name, int roots, int buckets);

    /// The sum of the digits of the s_RootCharacters characters at `leading`, modulo `roots`.
    /// Below 0 when they lead to no root.
    /// Kept on purpose: a "-" counts as -1, so a first word of few digits can lead to no root at
    /// all. Another rule would orphan every existing file.
    static int rootOf(const QChar* leading, int roots);

    /// The first 32-bit word of the digest, unsigned and in the byte order of the machine, modulo
    /// `buckets`. Bytes that the digest does not have count as 0.
    static int bucketOf(const unsigned char* digest, int digestBytes, int buckets);

    /// Root, sub-cache and bucket, each followed by the native separator.
    /// Kept on purpose: an empty sub-cache leaves two separators side by side. Messages and hosts
    /// see the path like that.
    static QString directory(const QString& root, const QString& subCache, int bucket);
};
