#include "io/ZebBlockFilePath.h"

#include "manager/ZebBuildFilename.h"

#include <QDir>

QString ZebBlockFilePath(const ZebDataHash* hash, const QString& root, const QString& subCache,
                         int bucketCount)
{
    QString directory;
    QString fileName;
    ZebBuildFilename(hash, root, subCache, bucketCount, directory, fileName);
    // Made from the working directory: a QDir on a relative path would make it below itself.
    if (!QDir(directory).exists())
        QDir().mkpath(directory);
    return directory + QDir::separator() + fileName;
}
