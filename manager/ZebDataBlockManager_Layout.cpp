// Where the file of a block lies: its place follows from its hash alone.

#include "manager/ZebDataBlockManager.h"

#include "hash/ZebDataHash.h"
#include "manager/ZebBuildFilename.h"
#include "support/ZebTdxMessage.h"

namespace {

// The root follows from this many characters at the beginning of the text form.
constexpr int s_RootCharacters = 4;

// Kept on purpose: a "-" among the characters counts as -1, so a first word of few digits can lead
// to no root at all. Another rule would orphan every existing file.
int digitSum(const QChar* characters)
{
    int sum = 0;
    for (int i = s_RootCharacters - 1; i >= 0; --i)
        sum += characters[i].digitValue();
    return sum;
}

} // namespace

int ZebDataBlockManager::cacheIndex(const QString& hashText)
{
    const int roots = m_CacheRoots.size();
    if (roots == 0)
        ZebTdxMessage::fatal(QStringLiteral("Number of cache paths is zero"));
    if (hashText.size() < s_RootCharacters)
        ZebTdxMessage::fatal(QStringLiteral("Hash String is too Short %1").arg(hashText));
    requireInitialized();
    const int index = digitSum(hashText.constData()) % roots;
    if (index < 0) {
        ZebTdxMessage::fatal(QStringLiteral("Cannot find suitable cache reading thread %1 for %2")
                                 .arg(index)
                                 .arg(hashText));
    }
    return index;
}

int ZebDataBlockManager::cacheIndex(const ZebDataHash* hash)
{
    requireInitialized();
    if (hash == nullptr)
        return -1;
    QChar leading[s_RootCharacters];
    const int available = hash->leadingText(leading, s_RootCharacters);
    const int roots = m_CacheRoots.size();
    if (available == s_RootCharacters && roots > 0) {
        const int index = digitSum(leading) % roots;
        if (index >= 0)
            return index;
    }
    // Only what ends the process is left, and its words need the whole text.
    return cacheIndex(hash->toString());
}

QString ZebDataBlockManager::getBlockDestination(const QString& subCache, const QString& hashText)
{
    const ZebDataHash hash(hashText);
    requireInitialized();
    const int index = cacheIndex(hash.toString());
    if (index < 0)
        return {};
    QString directory;
    QString fileName;
    ZebBuildFilename(&hash, m_CacheRoots.at(index), subCache, numBuckets(), directory, fileName);
    return directory + fileName;
}
