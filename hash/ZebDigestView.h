#pragma once

// Internal: a digest that belongs to another object. Not installed.

#include <cstring>

/// A digest with its size, as a ZebDataHash has them, for look-ups that make no such object.
///
/// Ownership: the bytes belong to another object, which must outlive the view.
struct ZebDigestView
{
    /// ZebDataHash::size().
    int m_SizeBytes;

    const unsigned char* m_Bytes;

    /// How many bytes there are: m_SizeBytes, or 0 for a hash without a digest.
    int m_Length;

    /// Compares as ZebDataHash does: equal size and equal bytes.
    friend bool operator==(const ZebDigestView& a, const ZebDigestView& b)
    {
        return a.m_SizeBytes == b.m_SizeBytes && a.m_Length == b.m_Length &&
               std::memcmp(a.m_Bytes, b.m_Bytes, static_cast<std::size_t>(a.m_Length)) == 0;
    }
};
