#include "selfcheck/ZebSelfCheckStore.h"

#include "hash/ZebHashText.h"
#include "manager/ZebDataBlockManager.h"
#include "selfcheck/TdxTester.h"
#include "selfcheck/ZebSelfCheck.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>

namespace {

void reportRemoval(bool removed, const QString& path)
{
    if (!removed)
        ZebSelfCheck::line("Cannot Remove %s", qUtf8Printable(path));
}

} // namespace

ZebSelfCheckStore::ZebSelfCheckStore(const QStringList& roots, qint64 memoryBytes, int buckets)
    : m_Roots(roots), m_IsReady(false), m_IsCleanedUp(false), m_IsClosed(false)
{
    clear(m_Roots);
    m_IsReady = ZebDataBlockManager::instance().setup(m_Roots, memoryBytes, buckets, 0);
}

ZebSelfCheckStore::~ZebSelfCheckStore()
{
    close();
}

void ZebSelfCheckStore::cleanUp()
{
    if (m_IsCleanedUp)
        return;
    m_IsCleanedUp = true;
    ZebDataBlockManager::instance().cleanUp(true);
}

void ZebSelfCheckStore::close()
{
    if (m_IsClosed)
        return;
    m_IsClosed = true;
    cleanUp();
    clear(m_Roots);
}

QStringList ZebSelfCheckStore::rootsIn(const QString& dataDirectory, int count)
{
    QStringList roots;
    for (int number = 1; number <= count; ++number)
        roots.append(dataDirectory + QStringLiteral("/.ZebaCache") + QString::number(number));
    return roots;
}

void ZebSelfCheckStore::clear(const QStringList& folders)
{
    for (const QString& folder : folders) {
        const QDir directory(folder);
        if (!directory.exists()) {
            TdxTester::tdxLog("Cache Does not exist %s", qUtf8Printable(folder));
            continue;
        }
        TdxTester::tdxLog("Clearing Cache %s", qUtf8Printable(folder));
        QStringList subFolders;
        QStringList files;
        const QFileInfoList entries = directory.entryInfoList(QDir::AllEntries | QDir::Hidden |
                                                              QDir::System | QDir::NoDotAndDotDot);
        for (const QFileInfo& entry : entries) {
            const bool isFolder = entry.isDir() && !entry.isSymLink();
            (isFolder ? subFolders : files).append(entry.absoluteFilePath());
        }
        clear(subFolders);
        for (const QString& file : qAsConst(files))
            reportRemoval(QFile::remove(file), file);
        for (const QString& subFolder : qAsConst(subFolders))
            reportRemoval(directory.rmdir(subFolder), subFolder);
    }
}

QList<QFileInfo> ZebSelfCheckStore::blockFiles(const QStringList& folders)
{
    QList<QFileInfo> files;
    for (const QString& folder : folders) {
        QDirIterator walk(folder, QDir::Files | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
        while (walk.hasNext()) {
            walk.next();
            if (ZebHashText::isBlockFileName(walk.fileName()))
                files.append(walk.fileInfo());
        }
    }
    return files;
}
