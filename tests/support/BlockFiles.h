#pragma once

#include "hash/ZebDataHash.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>
#include <QtEndian>

#include <gtest/gtest.h>

#include <random>

/// The bytes and paths of block files, computed without the library.
///
/// A second implementation on purpose: tests compare the library's codec and paths with these, so
/// that a change of the file format cannot pass unnoticed. Do not replace it by the library's own.
namespace BlockFiles {

constexpr int s_HeaderBytes = 12;

/// Bytes that do not compress.
inline QByteArray incompressible(int size, unsigned seed = 1)
{
    std::mt19937 random(seed);
    QByteArray bytes(size, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(random() & 0xFFU);
    return bytes;
}

/// Lines of text, which compress well.
inline QByteArray text(int lines)
{
    QByteArray bytes;
    for (int line = 0; line < lines; ++line) {
        bytes += "line " + QByteArray::number(line) + " of a text, the square of which is " +
                 QByteArray::number(line * line) + ".\n";
    }
    return bytes;
}

/// The file of a block of `size` bytes with this payload.
inline QByteArray fileBytes(qint64 size, const QByteArray& payload)
{
    QByteArray bytes(s_HeaderBytes, '\0');
    qToLittleEndian<qint64>(size, bytes.data());
    qToLittleEndian<qint32>(payload.size(), bytes.data() + 8);
    return bytes + payload;
}

/// The file that a writer makes of a block with these bytes.
inline QByteArray fileOf(const QByteArray& blockBytes)
{
    return fileBytes(blockBytes.size(), qCompress(blockBytes, 2));
}

/// The bucket directory of a hash.
inline QString bucketOf(const ZebDataHash& hash, const QString& root, const QString& subCache,
                        int buckets)
{
    const quint32 bucket = qFromLittleEndian<quint32>(hash.data()) % static_cast<quint32>(buckets);
    return root + "/" + subCache + "/" + QString::number(bucket);
}

/// The path of a file as the disk threads write it, with a double separator before the name.
inline QString pathOf(const ZebDataHash& hash, const QString& root, const QString& subCache,
                      int buckets)
{
    return bucketOf(hash, root, subCache, buckets) + "//" + hash.toString();
}

inline QByteArray read(const QString& path)
{
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << path.toStdString();
    return file.readAll();
}

inline void write(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    ASSERT_TRUE(QDir().mkpath(QFileInfo(path).path()));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << path.toStdString();
    ASSERT_EQ(file.write(bytes), bytes.size());
}

} // namespace BlockFiles

/// A plain file in the place of a directory, so that nothing below it can be opened until remove().
class FileInTheWay
{
public:
    explicit FileInTheWay(const QString& path) : m_Path(path)
    {
        BlockFiles::write(path, QByteArray("in the way"));
    }
    ~FileInTheWay() { remove(); }
    FileInTheWay(const FileInTheWay&) = delete;
    FileInTheWay& operator=(const FileInTheWay&) = delete;

    void remove()
    {
        if (!m_Path.isEmpty()) {
            EXPECT_TRUE(QFile::remove(m_Path)) << m_Path.toStdString();
        }
        m_Path.clear();
    }

private:
    QString m_Path;
};
