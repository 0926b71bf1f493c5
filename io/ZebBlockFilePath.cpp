#include "io/ZebBlockFilePath.h"

#include "manager/ZebBuildFilename.h"

#include <QDir>

QString ZebBlockFilePath(const ZebDataHash* hash, const QString& root, const QString& subCache,
                         int bucketCount)
{
    QString directory;
    QString fileName;
    ZebBuildFilename(hash, root, subCache, bucketCount, directory, fileName);
    // Not QDir(directory).mkpath(): with a relative path that would create it below itself.
    if (!QDir(directory).exists())
        QDir().mkpath(directory);
    return directory + QDir::separator() + fileName;
}
