#pragma once

#include "support/ZebTdxExport.h"

class ZebDataHash;

/// An entry of the registry: a raw pointer to a hash, compared by digest. It changes no reference
/// count, so the registry never keeps a hash alive.
///
/// Thread safety: that of a plain pointer. A comparison reads both digests, so both hashes must be
/// alive.
class ZEBTDX_EXPORT ZebHashHandle
{
public:
    /// Null.
    ZebHashHandle();

    /// Refers to `hash`, which is not owned and may be null.
    ZebHashHandle(ZebDataHash* hash);

    /// The raw pointer; may be null.
    ZebDataHash* data() const;

    /// Two null handles are equal, a null and a non-null handle are not; otherwise compares the
    /// hashes.
    bool operator==(const ZebHashHandle& other) const;

private:
    ZebDataHash* m_Hash;
};

/// 0 for a null handle, otherwise qhash() of the hash.
ZEBTDX_EXPORT unsigned int qHash(const ZebHashHandle& handle);
