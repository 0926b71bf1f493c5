// The text form of a digest: the name of a block's file, so the two directions here decide where
// existing caches lie.

#include "hash/ZebDataHash.h"

#include "support/ZebTdxMessage.h"

#include <QStringList>
#include <QtEndian>

#include <algorithm>
#include <cstring>

namespace {

constexpr int s_WordBytes = 4;
constexpr int s_MaxDigits = 10;

// Reads the word at `offset`; bytes behind the end of the digest count as 0.
quint32 wordAt(const QByteArray& digest, int offset)
{
    unsigned char bytes[s_WordBytes] = {};
    const int length = std::min(s_WordBytes, digest.size() - offset);
    std::memcpy(bytes, digest.constData() + offset, static_cast<size_t>(length));
    return qFromLittleEndian<quint32>(bytes);
}

// Writes `word` in decimal at `out` and returns the position behind it.
QChar* appendDecimal(QChar* out, quint32 word)
{
    char16_t digits[s_MaxDigits];
    int first = s_MaxDigits;
    do {
        digits[--first] = static_cast<char16_t>(u'0' + word % 10);
        word /= 10;
    } while (word != 0);
    for (int i = first; i < s_MaxDigits; ++i)
        *out++ = QChar(digits[i]);
    return out;
}

// The number that QString::toUInt gives for one group. The plain form of the numbers that we write
// ourselves is read here; whatever else stands there is left to Qt, which alone decides what it
// still takes for a number.
quint32 parseGroup(const QStringRef& group)
{
    if (group.size() > s_MaxDigits)
        return group.toUInt();
    quint64 value = 0;
    for (const QChar character : group) {
        const unsigned digit = static_cast<unsigned>(character.unicode()) - u'0';
        if (digit > 9)
            return group.toUInt();
        value = value * 10 + digit;
    }
    return value <= 0xFFFFFFFFULL ? static_cast<quint32>(value) : 0U;
}

} // namespace

void ZebDataHash::requireDigest() const
{
    if (m_Size < 1)
        ZebTdxMessage::fatal(QStringLiteral("m_Size is Zero or less"));
    if (m_Data.size() != m_Size) {
        ZebTdxMessage::fatal(QStringLiteral("Size of data is incorrect is %1, should be %2")
                                 .arg(m_Data.size())
                                 .arg(static_cast<int>(m_Size)));
    }
}

QString ZebDataHash::toString() const
{
    requireDigest();
    const int words = (m_Size + s_WordBytes - 1) / s_WordBytes;
    QString text(words * (s_MaxDigits + 1), Qt::Uninitialized);
    QChar* const begin = text.data();
    QChar* out = begin;
    for (int offset = 0; offset < m_Size; offset += s_WordBytes) {
        out = appendDecimal(out, wordAt(m_Data, offset));
        *out++ = QLatin1Char('-');
    }
    const auto length = static_cast<int>(out - begin);
    if (length == 0) {
        // A second guard: a digest that passed the tests above has at least one word.
        ZebTdxMessage::debug(
            QString::asprintf("Result Length %d  Size %d", length, static_cast<int>(m_Size)));
    }
    text.resize(std::max(0, length - 1));
    return text;
}

int ZebDataHash::leadingText(QChar* out, int length) const
{
    requireDigest();
    int written = 0;
    for (int offset = 0; offset < m_Size && written < length; offset += s_WordBytes) {
        if (offset != 0)
            out[written++] = QLatin1Char('-');
        QChar digits[s_MaxDigits];
        const auto count = static_cast<int>(appendDecimal(digits, wordAt(m_Data, offset)) - digits);
        for (int i = 0; i < count && written < length; ++i)
            out[written++] = digits[i];
    }
    return written;
}

void ZebDataHash::fromString(const QString& text)
{
    m_Data.clear();
    const QVector<QStringRef> groups =
        text.splitRef(QLatin1Char('-'), Qt::SkipEmptyParts, Qt::CaseSensitive);
    if (groups.isEmpty())
        return;
    const int width = s_WordBytes * groups.size();
    if (width != Hash256 && width != Hash512 && width != Hash1024) {
        // Kept on purpose: the number is the width in bytes, whatever the words say.
        ZebTdxMessage::debug(QString::asprintf("Unknown Hash Bit Size %d", width));
        return;
    }
    m_Size = static_cast<Size>(width);
    QByteArray digest(width, '\0');
    char* out = digest.data();
    for (const QStringRef& group : groups) {
        qToLittleEndian<quint32>(parseGroup(group), out);
        out += s_WordBytes;
    }
    m_Data = digest;
}
