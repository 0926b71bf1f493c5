#include "hash/ZebHashHandle.h"

#include "hash/ZebDataHash.h"

ZebHashHandle::ZebHashHandle() : m_Hash(nullptr) {}

ZebHashHandle::ZebHashHandle(ZebDataHash* hash) : m_Hash(hash) {}

ZebDataHash* ZebHashHandle::data() const
{
    return m_Hash;
}

bool ZebHashHandle::operator==(const ZebHashHandle& other) const
{
    if (m_Hash == nullptr || other.m_Hash == nullptr)
        return m_Hash == other.m_Hash;
    return *m_Hash == *other.m_Hash;
}

unsigned int qHash(const ZebHashHandle& handle)
{
    return handle.data() == nullptr ? 0U : handle.data()->qhash();
}
