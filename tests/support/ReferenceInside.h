#pragma once

#include "data/ZebDataReference.h"
#include "support/PrivateAccess.h"

using ReferenceInsidePointer = ZebSmartPointer<ZebDataHash>;

ZEBTDX_ACCESS(ReferenceInsideHash, ZebDataReference, ReferenceInsidePointer ZebDataReference::*,
              m_DataHash)

/// The private members of ZebDataReference.
namespace ReferenceInside {

/// The hash, null while the reference is pending.
inline ReferenceInsidePointer& hash(ZebDataReference& object)
{
    return object.*privateMember(ReferenceInsideHash());
}

} // namespace ReferenceInside
