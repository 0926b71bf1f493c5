#include "hash/ZebHashRemoval.h"

#include "hash/ZebHashManager.h"

ZebHashRemoval::ZebHashRemoval(const QString& text)
    : m_Digest(text),
      m_Shard(nullptr),
      m_Next(nullptr),
      m_HashIsLive(!ZebHashManager::instance().beginRemoval(this))
{}

ZebHashRemoval::~ZebHashRemoval()
{
    if (!m_HashIsLive)
        ZebHashManager::instance().endRemoval(this);
}
