#pragma once

#include "manager/ZebDataBlockManager.h"

/// The process's store.
inline ZebDataBlockManager& manager()
{
    return ZebDataBlockManager::instance();
}
