#pragma once

#include "data/ZebConstAccessor.h"
#include "data/ZebDataBlock.h"
#include "data/ZebDataReference.h"

#include <QByteArray>

/// A copy of the bytes that an accessor shows; "no block" for a null accessor.
inline QByteArray bytesOf(const ZebConstAccessor& accessor)
{
    if (accessor.isNull())
        return "no block";
    return {reinterpret_cast<const char*>(accessor.data()), static_cast<int>(accessor.size())};
}

/// A copy of the block's bytes, which loads it if needed; "no block" when it cannot be loaded.
inline QByteArray bytesOf(const ZebDataReference& reference)
{
    return bytesOf(reference.constAccessor());
}

/// A copy of the bytes of a plain block.
inline QByteArray bytesOf(const ZebDataBlock& block)
{
    return {reinterpret_cast<const char*>(block.constData()), static_cast<int>(block.size())};
}
