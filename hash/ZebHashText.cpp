#include "hash/ZebHashText.h"

#include <QStringRef>
#include <QtEndian>

#include <algorithm>
#include <cstring>

namespace {

using ZebHashText::s_MaxWordDigits;
using ZebHashText::s_WordBytes;

template <typename Character>
Character characterOf(char character)
{
    return Character(character);
}

template <>
QChar characterOf<QChar>(char character)
{
    return QLatin1Char(character);
}

// Writes `word` in decimal at `out` and returns the position after it.
template <typename Character>
Character* appendDecimal(Character* out, quint32 word)
{
    char digits[s_MaxWordDigits];
    int first = s_MaxWordDigits;
    do {
        digits[--first] = static_cast<char>('0' + word % 10);
        word /= 10;
    } while (word != 0);
    for (int i = first; i < s_MaxWordDigits; ++i)
        *out++ = characterOf<Character>(digits[i]);
    return out;
}

// Writes the text form of a digest of at least one byte, and returns the position after it.
template <typename Character>
Character* writeAll(const unsigned char* digest, int digestBytes, Character* out)
{
    for (int offset = 0; offset < digestBytes; offset += s_WordBytes) {
        if (offset != 0)
            *out++ = characterOf<Character>('-');
        out = appendDecimal(out, ZebHashText::wordAt(digest, digestBytes, offset));
    }
    return out;
}

} // namespace

quint32 ZebHashText::wordAt(const unsigned char* digest, int digestBytes, int offset)
{
    unsigned char bytes[s_WordBytes] = {};
    const int length = std::min(s_WordBytes, digestBytes - offset);
    std::memcpy(bytes, digest + offset, static_cast<size_t>(length));
    return qFromLittleEndian<quint32>(bytes);
}

QString ZebHashText::toText(const unsigned char* digest, int digestBytes)
{
    const int words = (digestBytes + s_WordBytes - 1) / s_WordBytes;
    QString text(words * (s_MaxWordDigits + 1), Qt::Uninitialized);
    QChar* const begin = text.data();
    text.resize(static_cast<int>(writeAll(digest, digestBytes, begin) - begin));
    return text;
}

int ZebHashText::writeLeading(const unsigned char* digest, int digestBytes, QChar* out, int length)
{
    int written = 0;
    for (int offset = 0; offset < digestBytes && written < length; offset += s_WordBytes) {
        if (offset != 0)
            out[written++] = QLatin1Char('-');
        QChar digits[s_MaxWordDigits];
        const auto count =
            static_cast<int>(appendDecimal(digits, wordAt(digest, digestBytes, offset)) - digits);
        for (int i = 0; i < count && written < length; ++i)
            out[written++] = digits[i];
    }
    return written;
}

char* ZebHashText::writeBlockText(const unsigned char* digest, char* out)
{
    return writeAll(digest, s_BlockWords * s_WordBytes, out);
}

int ZebHashText::readDigest(const QString& text, unsigned char* out, int maxWords)
{
    int words = 0;
    for (int at = 0; at < text.size(); ++at) {
        const int first = at;
        quint64 value = 0;
        bool isPlain = true;
        for (; at < text.size() && text[at] != QLatin1Char('-'); ++at) {
            const unsigned digit = static_cast<unsigned>(text[at].unicode()) - u'0';
            isPlain = isPlain && digit <= 9;
            value = value * 10 + digit;
        }
        const int length = at - first;
        if (length == 0)
            continue;
        if (words < maxWords) {
            // The plain form of the numbers that we write ourselves is read here; everything else
            // is left to Qt, which alone decides what else it accepts as a number.
            quint32 word = value <= 0xFFFFFFFFULL ? static_cast<quint32>(value) : 0U;
            if (!isPlain || length > s_MaxWordDigits)
                word = QStringRef(&text, first, length).toUInt();
            qToLittleEndian<quint32>(word, out + words * s_WordBytes);
        }
        ++words;
    }
    return words;
}

bool ZebHashText::isBlockFileName(const QString& name)
{
    return name.count(QLatin1Char('-')) == s_BlockDashes;
}
