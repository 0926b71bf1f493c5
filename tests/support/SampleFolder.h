#pragma once

#include "tools/commands/SampleData.h"

#include "selfcheck/TdxTester.h"

#include <QDir>
#include <QString>
#include <QTemporaryDir>

#include <gtest/gtest.h>

/// A data folder of the self-check with its sample files, for the length of a scope. Testers use it
/// from then on.
class SampleFolder
{
public:
    /// Writes only these parts; all sub-folders exist.
    explicit SampleFolder(int parts = SampleData::Everything)
    {
        EXPECT_EQ(SampleData::write(m_Folder.path(), parts).toStdString(), "");
        TdxTester().setTestDataDirectory(m_Folder.path());
    }
    SampleFolder(const SampleFolder&) = delete;
    SampleFolder& operator=(const SampleFolder&) = delete;

    QString path() const { return m_Folder.path(); }
    QString path(const QString& name) const { return m_Folder.path() + name; }

    /// The files and directories below the cache roots.
    QStringList leftInRoots() const
    {
        QStringList left;
        for (int number = 1; number <= 4; ++number) {
            const QDir root(path(QStringLiteral("/.ZebaCache%1").arg(number)));
            left += root.entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
        }
        return left;
    }

private:
    QTemporaryDir m_Folder;
};
