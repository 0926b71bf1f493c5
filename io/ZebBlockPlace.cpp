#include "io/ZebBlockPlace.h"

#include "hash/ZebBlockName.h"
#include "hash/ZebHashText.h"

#include <QDir>

#include <cstring>

ZebBlockPlace ZebBlockPlace::of(const ZebBlockName& name, int roots, int buckets)
{
    QChar leading[s_RootCharacters];
    ZebHashText::writeLeading(name.digest(), ZebBlockName::s_Bytes, leading, s_RootCharacters);
    const int root = rootOf(leading, roots);
    ZebBlockPlace place;
    place.m_Root = root < 0 ? -1 : root;
    place.m_Bucket = static_cast<int>(bucketOf(name.digest(), ZebBlockName::s_Bytes, buckets));
    return place;
}

int ZebBlockPlace::rootOf(const QChar* leading, int roots)
{
    int sum = 0;
    for (int i = 0; i < s_RootCharacters; ++i)
        sum += leading[i].digitValue();
    return sum % roots;
}

quint32 ZebBlockPlace::bucketOf(const unsigned char* digest, int digestBytes, int buckets)
{
    quint32 firstWord = 0;
    std::memcpy(&firstWord, digest, qMin(sizeof firstWord, static_cast<size_t>(digestBytes)));
    return firstWord % static_cast<quint32>(buckets);
}

QString ZebBlockPlace::directory(const QString& root, const QString& subCache, quint32 bucket)
{
    const QChar separator = QDir::separator();
    return root + separator + subCache + separator + QString::number(bucket) + separator;
}
