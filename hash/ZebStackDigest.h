#pragma once

// Internal: a digest as a value without an allocation. Not installed.

#include "hash/ZebDataHash.h"
#include "hash/ZebDigestView.h"

#include <QString>
#include <QtGlobal>

/// The digest of bytes or of a text form. Unlike a ZebDataHash it allocates nothing, so a look-up
/// of a known hash does not either.
///
/// Thread safety: that of a plain value.
class ZebStackDigest
{
public:
    /// The longest digest that a text form can have.
    static constexpr int s_MaxBytes = ZebDataHash::Hash1024;

    /// Computes the digest of `length` bytes at `bytes`, of size Hash512. If the arguments are not
    /// valid, the digest is all zeros and a debug line reports it.
    ZebStackDigest(const unsigned char* bytes, qint64 length);

    /// Reads a text form as ZebDataHash::fromString() does, with the same debug line: the digest of
    /// any text that it cannot read is empty, and the size is Hash256.
    explicit ZebStackDigest(const QString& text);

    ZebStackDigest(const ZebStackDigest&) = delete;
    ZebStackDigest& operator=(const ZebStackDigest&) = delete;

    /// The digest, which the object owns.
    ZebDigestView view() const { return {m_Size, m_Bytes, m_Length}; }

    /// Writes the digest of `length` bytes at `bytes` to `out`, which has room for `size` bytes. If
    /// length or size is not valid, `out` stays and a debug line reports it.
    static void compute(const unsigned char* bytes, qint64 length, ZebDataHash::Size size,
                        unsigned char* out);

private:
    ZebDataHash::Size m_Size;
    int m_Length;

    // Only the first m_Length bytes are initialized.
    unsigned char m_Bytes[s_MaxBytes];
};
