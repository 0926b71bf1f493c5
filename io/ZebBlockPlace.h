#pragma once

// Internal: where a block's file lies. Not installed.

#include <QChar>
#include <QString>

class ZebBlockName;

/// The place of a block's file in a cache: the index of its root and the number of its bucket. Both
/// follow from the digest alone. A file anywhere else is never found, so every existing cache
/// depends on these rules.
///
/// Thread safety: every function uses its arguments only.
struct ZebBlockPlace
{
    /// Index of the root; -1 when the name leads to none of that many roots. A store with them
    /// cannot write the block.
    int m_Root = -1;
    int m_Bucket = 0;

    /// The root follows from this many leading characters of the text form.
    static constexpr int s_RootCharacters = 4;

    /// @param roots how many roots the store has, at least 1
    /// @param buckets how many buckets each root has, at least 1
    static ZebBlockPlace of(const ZebBlockName& name, int roots, int buckets);

    /// The sum of the s_RootCharacters digits at `leading`, modulo `roots`. Negative when they lead
    /// to no root.
    /// Kept on purpose: a "-" counts as -1, so a first word of few digits can lead to no root.
    /// Another rule would orphan existing files.
    static int rootOf(const QChar* leading, int roots);

    /// The first 32-bit word of the digest, unsigned and in the byte order of the machine, modulo
    /// `buckets`. Missing digest bytes count as 0.
    static quint32 bucketOf(const unsigned char* digest, int digestBytes, int buckets);

    /// Root, sub-cache and bucket, each followed by the native separator.
    /// Kept on purpose: an empty sub-cache leaves two adjacent separators. Messages and hosts see
    /// the path like that.
    static QString directory(const QString& root, const QString& subCache, quint32 bucket);
};
