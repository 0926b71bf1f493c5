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

/// Block files as they are described: their bytes and their places, made without the library.
namespace BlockFiles {

constexpr int s_HeaderBytes = 12;

/// Bytes that no codec makes shorter.
inline QByteArray incompressible(int size, unsigned seed = 1)
{
    std::mt19937 random(seed);
    QByteArray bytes(size, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(random() & 0xFFU);
    return bytes;
}

/// Something to read, which a codec makes much shorter.
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

/// The file that a writer makes of a plain block.
inline QByteArray fileOf(const QByteArray& content)
{
    return fileBytes(content.size(), qCompress(content, 2));
}

/// The bucket directory of a hash.
inline QString bucketOf(const ZebDataHash& hash, const QString& root, const QString& subCache,
                        int buckets)
{
    const quint32 bucket = qFromLittleEndian<quint32>(hash.data()) % static_cast<quint32>(buckets);
    return root + "/" + subCache + "/" + QString::number(bucket);
}

/// The path of a file as the disk threads spell it: the separator before the name stands twice.
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

/// A plain file where a directory belongs, so that nothing below it can be opened until remove().
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
