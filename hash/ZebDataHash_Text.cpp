// A hash and its text form: the checks and messages around ZebHashText.

#include "hash/ZebDataHash.h"

#include "hash/ZebHashText.h"
#include "hash/ZebStackDigest.h"
#include "support/ZebTdxMessage.h"

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
    QString text = ZebHashText::toText(data(), m_Size);
    if (text.isEmpty()) {
        // Kept on purpose: a second guard. A digest that has passed the checks above has at least
        // one word, so this line is never printed.
        ZebTdxMessage::debug(
            QString::asprintf("Result Length %d  Size %d", text.size(), static_cast<int>(m_Size)));
    }
    return text;
}

QString ZebDataHash::textIfWhole() const
{
    return m_Size >= 1 && m_Data.size() == m_Size ? toString() : QString();
}

int ZebDataHash::leadingText(QChar* out, int length) const
{
    requireDigest();
    return ZebHashText::writeLeading(data(), m_Size, out, length);
}

void ZebDataHash::fromString(const QString& text)
{
    m_Data.clear();
    const ZebStackDigest read(text);
    const ZebDigestView digest = read.view();
    if (digest.m_Length == 0)
        return;
    m_Size = static_cast<Size>(digest.m_SizeBytes);
    m_Data = QByteArray(reinterpret_cast<const char*>(digest.m_Bytes), digest.m_Length);
}
