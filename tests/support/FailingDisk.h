#pragma once

#include <QFile>
#include <QString>
#include <QStringList>

#include <gtest/gtest.h>

/// Makes every write below these roots fail until recover(): a plain file takes the place of the
/// bucket directory. For stores with one bucket that have written nothing yet.
///
/// Meanwhile the writer retries without a pause, so keep the failure short.
class FailingDisk
{
public:
    explicit FailingDisk(const QStringList& roots)
    {
        for (const QString& root : roots) {
            const QString path = root + QStringLiteral("/0");
            EXPECT_FALSE(QFile::exists(path)) << "something was written before";
            QFile file(path);
            EXPECT_TRUE(file.open(QIODevice::WriteOnly));
            m_InTheWay.append(path);
        }
    }
    ~FailingDisk() { recover(); }
    FailingDisk(const FailingDisk&) = delete;
    FailingDisk& operator=(const FailingDisk&) = delete;

    void recover()
    {
        for (const QString& path : m_InTheWay)
            EXPECT_TRUE(QFile::remove(path));
        m_InTheWay.clear();
    }

private:
    QStringList m_InTheWay;
};
