#include "manager/ZebBuildFilename.h"

#include "hash/ZebDataHash.h"
#include "support/ZebTdxMessage.h"

#include <QDir>

#include <cstring>

bool ZebBuildFilename(const ZebDataHash* hash, const QString& root, const QString& subCache,
                      int bucketCount, QString& directory, QString& fileName)
{
    if (hash == nullptr) {
        ZebTdxMessage::debug(QStringLiteral("Null Hash Passed to Filename Builder"));
        return false;
    }
    fileName = hash->toString();
    quint32 firstWord = 0;
    const auto available = static_cast<size_t>(hash->size());
    std::memcpy(&firstWord, hash->data(), qMin(sizeof firstWord, available));
    const quint32 bucket = firstWord % static_cast<quint32>(bucketCount);
    const QChar separator = QDir::separator();
    directory = root + separator + subCache + separator + QString::number(bucket) + separator;
    return true;
}
