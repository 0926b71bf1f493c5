// Groups: lists of references, stored as blocks.

#include "manager/ZebDataBlockManager.h"

#include "data/ZebConstAccessor.h"
#include "data/ZebDataBlock.h"
#include "data/ZebDataReference.h"
#include "data/ZebGroupHeader.h"
#include "hash/ZebHashManager.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <optional>

namespace {

// The digests of a group, stored contiguously.
struct GroupDigests
{
    qint64 m_Count = 0;
    ZebDataHash::Size m_HashSize = ZebDataHash::Hash512;
    const unsigned char* m_First = nullptr;

    // The digest as a hash that is not interned. Requires an index below m_Count.
    ZebDataHash at(qint64 index) const
    {
        // The const_cast is safe: this form of the constructor only reads.
        return ZebDataHash(m_HashSize, const_cast<unsigned char*>(m_First) + index * m_HashSize);
    }
};

// Empty for a block that is no group. decode() bounds the count by `size`, so a damaged group is
// read to its last whole digest.
GroupDigests digestsOf(const unsigned char* bytes, qint64 size)
{
    GroupDigests digests;
    const std::optional<ZebGroupHeader> header = ZebGroupHeader::decode(bytes, size);
    if (!header || header->m_Digests < 1)
        return digests;
    digests.m_Count = header->m_Digests;
    digests.m_HashSize = static_cast<ZebDataHash::Size>(header->m_DigestBytes);
    digests.m_First = bytes + ZebGroupHeader::s_Bytes;
    return digests;
}

} // namespace

qint64 ZebDataBlockManager::storedBytes(const ZebConstAccessor& accessor)
{
    return accessor.isNull() ? 0 : accessor.m_Block->m_Data.size();
}

ZebDataReference ZebDataBlockManager::makeGroupBlock(const QVector<ZebDataReference>& references)
{
    qint64 hashSize = 0;
    qint64 total = ZebGroupHeader::s_Bytes;
    QVector<ZebSmartPointer<ZebDataHash>> members;
    members.reserve(references.size());
    for (const ZebDataReference& reference : references) {
        members.append(reference.hashPtr());
        const ZebDataHash& hash = *members.last();
        hash.requireDigest();
        // Kept on purpose: the last member's size stands for all, unchecked. The store makes every
        // hash with one size.
        hashSize = hash.size();
        total += hashSize;
    }
    ZebGroupHeader header;
    header.m_DigestBytes = static_cast<qint32>(hashSize);
    header.m_Digests = members.size();
    QByteArray bytes;
    bytes.reserve(static_cast<int>(std::min<qint64>(total, std::numeric_limits<int>::max())));
    bytes.append(reinterpret_cast<const char*>(header.encode().data()), ZebGroupHeader::s_Bytes);
    for (const ZebSmartPointer<ZebDataHash>& hash : qAsConst(members))
        bytes.append(reinterpret_cast<const char*>(hash->data()), hash->size());
    return addBlock(bytes, ZebModifyAccessor::Cached, false);
}

QVector<ZebDataReference> ZebDataBlockManager::extractGroupBlock(const ZebDataReference& group)
{
    QVector<ZebDataReference> references;
    extractGroupBlock(group, references);
    return references;
}

void ZebDataBlockManager::extractGroupBlock(const ZebDataReference& group,
                                            QVector<ZebDataReference>& references)
{
    // Pins the bytes until the end. `group` is not used below, so it may be an element of
    // `references`, which grows here.
    const ZebConstAccessor accessor = group.constAccessor();
    const GroupDigests digests =
        digestsOf(accessor.isNull() ? nullptr : accessor.data(), storedBytes(accessor));
    references.reserve(references.size() + static_cast<int>(digests.m_Count));
    // Looks up a repeated digest in the registry only once.
    QMap<ZebDataHash, ZebDataReference> known;
    for (qint64 i = 0; i < digests.m_Count; ++i) {
        const ZebDataHash listed = digests.at(i);
        auto entry = known.constFind(listed);
        if (entry == known.constEnd()) {
            auto fresh = std::make_unique<ZebDataHash>(listed);
            const ZebDataReference member(ZebHashManager::instance().addHash(fresh.release()));
            entry = known.insert(listed, member);
        }
        references.append(*entry);
    }
}

void ZebDataBlockManager::extractGroupBlock(const ZebDataReference& group, QSet<QString>& hashes)
{
    const ZebConstAccessor accessor = group.constAccessor();
    const GroupDigests digests =
        digestsOf(accessor.isNull() ? nullptr : accessor.data(), storedBytes(accessor));
    for (qint64 i = 0; i < digests.m_Count; ++i)
        hashes.insert(digests.at(i).toString());
}

void ZebDataBlockManager::clearGroupCache()
{
    // Kept on purpose: no cache of groups exists, but a host may call this.
}
