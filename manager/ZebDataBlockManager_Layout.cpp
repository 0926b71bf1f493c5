// Layout: where a block's file lies, which follows from its hash alone.

#include "manager/ZebDataBlockManager.h"

#include "hash/ZebDataHash.h"
#include "io/ZebBlockPlace.h"
#include "manager/ZebBuildFilename.h"
#include "support/ZebTdxMessage.h"

void ZebDataBlockManager::fatalNoThread(int index, const QString& hashText)
{
    ZebTdxMessage::fatal(QStringLiteral("Cannot find suitable cache reading thread %1 for %2")
                             .arg(index)
                             .arg(hashText));
}

int ZebDataBlockManager::cacheIndex(const QString& hashText)
{
    const int roots = m_CacheRoots.size();
    if (roots == 0)
        ZebTdxMessage::fatal(QStringLiteral("Number of cache paths is zero"));
    if (hashText.size() < ZebBlockPlace::s_RootCharacters)
        ZebTdxMessage::fatal(QStringLiteral("Hash String is too Short %1").arg(hashText));
    requireInitialized();
    const int index = ZebBlockPlace::rootOf(hashText.constData(), roots);
    if (index < 0)
        fatalNoThread(index, hashText);
    return index;
}

int ZebDataBlockManager::cacheIndex(const ZebDataHash* hash)
{
    requireInitialized();
    if (hash == nullptr)
        return -1;
    constexpr int wanted = ZebBlockPlace::s_RootCharacters;
    QChar leading[wanted];
    const int available = hash->leadingText(leading, wanted);
    const int roots = m_CacheRoots.size();
    if (available == wanted && roots > 0) {
        const int index = ZebBlockPlace::rootOf(leading, roots);
        if (index >= 0)
            return index;
    }
    // Always fatal; the message needs the whole text.
    return cacheIndex(hash->toString());
}

QString ZebDataBlockManager::getBlockDestination(const QString& subCache, const QString& hashText)
{
    const ZebDataHash hash(hashText);
    requireInitialized();
    const int index = cacheIndex(hash.toString());
    // Kept on purpose: unreachable, since a text without a root is fatal.
    if (index < 0)
        return {};
    QString directory;
    QString fileName;
    ZebBuildFilename(&hash, m_CacheRoots.at(index), subCache, numBuckets(), directory, fileName);
    return directory + fileName;
}
