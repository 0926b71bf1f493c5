#include "hash/ZebStackDigest.h"

#include "hash/Skein.h"
#include "hash/ZebHashText.h"
#include "support/ZebTdxMessage.h"

#include <algorithm>

ZebStackDigest::ZebStackDigest(const unsigned char* bytes, qint64 length)
    : m_Size(ZebDataHash::Hash512), m_Length(m_Size)
{
    std::fill_n(m_Bytes, m_Length, static_cast<unsigned char>(0));
    compute(bytes, length, m_Size, m_Bytes);
}

ZebStackDigest::ZebStackDigest(const QString& text) : m_Size(ZebDataHash::Hash256), m_Length(0)
{
    constexpr int s_MaxWords = s_MaxBytes / ZebHashText::s_WordBytes;
    const int words = ZebHashText::readDigest(text, m_Bytes, s_MaxWords);
    if (words == 0)
        return;
    const int width = ZebHashText::s_WordBytes * words;
    if (width != ZebDataHash::Hash256 && width != ZebDataHash::Hash512 &&
        width != ZebDataHash::Hash1024) {
        // Kept on purpose: the number is the width in bytes, although the text says bits.
        ZebTdxMessage::debug(QString::asprintf("Unknown Hash Bit Size %d", width));
        return;
    }
    m_Size = static_cast<ZebDataHash::Size>(width);
    m_Length = width;
}

void ZebStackDigest::compute(const unsigned char* bytes, qint64 length, ZebDataHash::Size size,
                             unsigned char* out)
{
    ZebSkein::HashReturn result = ZebSkein::Fail;
    if (length >= 0) {
        result = ZebSkein::Hash(static_cast<int>(size) * 8, bytes, static_cast<quint64>(length) * 8,
                                out);
    }
    if (result == ZebSkein::Fail)
        ZebTdxMessage::debug(QStringLiteral("Hashing Failed"));
    else if (result == ZebSkein::BadHashLength)
        ZebTdxMessage::debug(QStringLiteral("Hashing Failed - Invalid Hash Length"));
}
