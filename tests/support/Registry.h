#pragma once

#include "hash/ZebDataHash.h"
#include "hash/ZebHashManager.h"

#include <QByteArray>

/// The process's registry of hashes.
inline ZebHashManager& registry()
{
    return ZebHashManager::instance();
}

/// A hash of these bytes, as long as a block's, which the registry does not know.
inline ZebDataHash* newHash(const QByteArray& bytes)
{
    return new ZebDataHash(bytes, ZebDataHash::Hash512);
}
