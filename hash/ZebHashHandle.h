#pragma once

#include "support/ZebTdxExport.h"

class ZebDataHash;

/// The registry's key: a raw pointer to a hash that compares by content. It moves no count, so the
/// registry never keeps a hash alive.
///
/// Thread safety: that of a plain pointer. Comparing reads the digests, so both hashes must be
/// alive, which the registry's mutex sees to.
class ZEBTDX_EXPORT ZebHashHandle
{
public:
    /// Null.
    ZebHashHandle();

    /// Refers to `hash`, which is not owned and may be null.
    ZebHashHandle(ZebDataHash* hash);

    /// The raw pointer; may be null.
    ZebDataHash* data() const;

    /// Two null handles are equal, a null one equals no other; otherwise the contents decide.
    bool operator==(const ZebHashHandle& other) const;

private:
    ZebDataHash* m_Hash;
};

/// 0 for a null handle, otherwise the hash of the content.
ZEBTDX_EXPORT unsigned int qHash(const ZebHashHandle& handle);
