#pragma once

#include "data/ZebConstAccessor.h"
#include "data/ZebModifyAccessor.h"
#include "support/PrivateAccess.h"

ZEBTDX_ACCESS(ConstAccessorInsideBlock, ZebConstAccessor, ZebDataBlock* ZebConstAccessor::*,
              m_Block)
ZEBTDX_ACCESS(ModifyAccessorInsideBlock, ZebModifyAccessor, ZebDataBlock* ZebModifyAccessor::*,
              m_Block)

/// The private members of the accessors.
namespace AccessorInside {

inline ZebDataBlock* block(const ZebConstAccessor& accessor)
{
    return accessor.*privateMember(ConstAccessorInsideBlock());
}

inline ZebDataBlock* block(const ZebModifyAccessor& accessor)
{
    return accessor.*privateMember(ModifyAccessorInsideBlock());
}

} // namespace AccessorInside
