#include "manager/ZebBuildFilename.h"

#include "hash/ZebDataHash.h"
#include "io/ZebBlockPlace.h"
#include "support/ZebTdxMessage.h"

bool ZebBuildFilename(const ZebDataHash* hash, const QString& root, const QString& subCache,
                      int bucketCount, QString& directory, QString& fileName)
{
    if (hash == nullptr) {
        ZebTdxMessage::debug(QStringLiteral("Null Hash Passed to Filename Builder"));
        return false;
    }
    fileName = hash->toString();
    const quint32 bucket = ZebBlockPlace::bucketOf(hash->data(), hash->size(), bucketCount);
    directory = ZebBlockPlace::directory(root, subCache, bucket);
    return true;
}
